#include "common/io/ConfigFileReader.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

// The sizes the watchdog's configuration uses: keys of 64, values of 128.
constexpr int32_t kKeySize = 65;
constexpr int32_t kValueSize = 129;

class ConfigFileReaderTest : public ::testing::Test {
 protected:
  void Open(const std::string& content) {
    reader_ = CreateConfigFileReader(dir_.Write("test.cfg", content).c_str(), 0);
    ASSERT_NE(reader_, nullptr);
  }
  bool Next() { return reader_->ReadKeyValue(key_, kKeySize, value_, kValueSize); }

  TempDir dir_;
  LogCapture logs_;
  std::unique_ptr<ConfigFileReader> reader_;
  char key_[kKeySize] = "stale";
  char value_[kValueSize] = "stale";
};

TEST_F(ConfigFileReaderTest, OneLineGrammar) {
  const std::string k64(64, 'k'), v128(128, 'v');
  // line, understood, key, value, a logged text ("" for none)
  const std::tuple<std::string, bool, std::string, std::string, std::string> cases[] = {
      {"dns=2001:4860::8888,8.8.8.8;rest\n", true, "dns", "2001:4860::8888,8.8.8.8", ""},
      {"k=a*b_c-d.e\r\n", true, "k", "a*b_c-d.e", ""},
      {"p = \"/tmp/my dir #1 = x\" tail\n", true, "p", "/tmp/my dir #1 = x", "quoted value\n"},
      {k64 + "=v\n", true, k64, "v", ""},
      {"k=" + v128 + "\n", true, "k", v128, ""},
      {"k=\"" + v128 + "\"\n", true, "k", v128, ""},
      {"k=v", true, "k", "v", ""},
      {" \t\n", true, "", "", ""},
      {std::string("k=v\0w=x\n", 8), true, "k", "v", ""},
      {"k=\"abc\n", false, "k", "", "Could not find closing quotation mark"},
      {"k=" + v128 + "v\n", false, "k", "", "Couldn't read value from line 'k=vvv"},
      {"k=\"" + v128 + "v\"\n", false, "k", "", "Couldn't read value from line 'k=\"vvv"},
      {"k= # nothing\n", false, "k", "", "Couldn't read value from line 'k= # nothing\n'\n"},
      {std::string(65, 'k') + "=v\n", false, "", "stale", "Couldn't read key from line 'kkk"},
      {"libPath  /lib\n", false, "libPath", "stale",
       "Couldn't find = symbol in line 'libPath  /lib\n', expected at idx 9, got /\n"},
  };
  for (const auto& [line, ok, key, value, logged] : cases) {
    SCOPED_TRACE(line);
    Open(line);
    std::strcpy(value_, "stale");
    EXPECT_EQ(ok, Next()) << logs_.Dump();
    EXPECT_EQ(key, key_);
    EXPECT_EQ(value, value_);
    EXPECT_TRUE(logged.empty() || logs_.Contains(logged)) << logs_.Dump();
    logs_.Clear();
  }
}

TEST_F(ConfigFileReaderTest, LineLongerThanTheBufferIsReadInPieces) {
  Open("#" + std::string(1022, 'x') + "cpuCoresNumber=4\n");
  ASSERT_TRUE(Next());
  EXPECT_STREQ(key_, "");
  ASSERT_TRUE(Next());
  EXPECT_EQ(std::string(key_) + "=" + value_, "cpuCoresNumber=4");
  EXPECT_FALSE(Next());
  EXPECT_TRUE(logs_.Contains("Failed reading line\n"));
}

}  // namespace
