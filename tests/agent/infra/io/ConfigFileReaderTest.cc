#include "agent/src/infra/io/ConfigFileReader.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

// The sizes the watchdog's configuration uses: keys of 64, values of 128.
constexpr int32_t kKeySize = 65;
constexpr int32_t kValueSize = 129;

class ConfigFileReaderTest : public ::testing::Test {
 protected:
  // Opens a reader on a file holding content.
  void Open(const std::string& content) {
    reader_ = CreateConfigFileReader(dir_.Write("test.cfg", content).c_str(), 0);
    ASSERT_NE(reader_, nullptr);
  }
  bool Next() { return reader_->ReadKeyValue(key_, kKeySize, value_, kValueSize); }
  // Reads the single line of content and expects it to be understood.
  void ExpectPair(const std::string& content, const std::string& key, const std::string& value) {
    Open(content);
    ASSERT_TRUE(Next()) << content << logs_.Dump();
    EXPECT_EQ(key_, key);
    EXPECT_EQ(value_, value);
  }

  TempDir dir_;
  LogCapture logs_;
  std::unique_ptr<ConfigFileReader> reader_;
  char key_[kKeySize] = "stale";
  char value_[kValueSize] = "stale";
};

TEST_F(ConfigFileReaderTest, BlanksAroundEqualsAndBeforeKeyAreSkipped) {
  ExpectPair(" \tcpuAffinityMask \t= \t0x3\n", "cpuAffinityMask", "0x3");
}

TEST_F(ConfigFileReaderTest, UnquotedValueEndsAtFirstNonWordCharacter) {
  ExpectPair("pidFilePath=/var/run/ # where pid files go\n", "pidFilePath", "/var/run/");
  ExpectPair("dnsServers=2001:4860::8888,8.8.8.8;rest\n", "dnsServers", "2001:4860::8888,8.8.8.8");
  ExpectPair("k=a*b_c-d.e\r\n", "k", "a*b_c-d.e");
}

TEST_F(ConfigFileReaderTest, QuotedValueIsTakenLiterally) {
  ExpectPair("localVersionPath = \"/tmp/my dir #1 = x\" trailing\n", "localVersionPath",
             "/tmp/my dir #1 = x");
  EXPECT_TRUE(logs_.Contains("Found configuration vars with a quoted value"));
}

TEST_F(ConfigFileReaderTest, EmptyQuotesFailTheLine) {
  Open("k=\"\"\nnext=1\n");
  EXPECT_FALSE(Next());
  EXPECT_STREQ(value_, "");
  EXPECT_EQ(logs_.Count(LoggerLevel::ERROR, "Couldn't read value from line 'k=\"\"\n'\n"), 1u);
}

TEST_F(ConfigFileReaderTest, UnclosedQuoteFailsTheLine) {
  Open("k=\"abc\n");
  EXPECT_FALSE(Next());
  EXPECT_STREQ(value_, "");
  EXPECT_TRUE(logs_.Contains("Could not find closing quotation mark for configuration word\n"));
  EXPECT_TRUE(logs_.Contains("Couldn't read value from line 'k=\"abc\n'\n"));
}

TEST_F(ConfigFileReaderTest, CommentsBlankLinesAndBlanksOnlyAreEmptyLines) {
  Open("# comment\n\n \t\n   ");
  for (int i = 0; i < 4; ++i) {
    ASSERT_TRUE(Next()) << "line " << i;
    EXPECT_STREQ(key_, "");
    EXPECT_STREQ(value_, "");
  }
  EXPECT_FALSE(Next());
  EXPECT_TRUE(logs_.Contains("Failed reading line\n"));
}

TEST_F(ConfigFileReaderTest, KeyOf64CharactersFitsAndOf65Fails) {
  const std::string key64(64, 'k');
  ExpectPair(key64 + "=v\n", key64, "v");
  Open(std::string(65, 'k') + "=v\n");
  EXPECT_FALSE(Next());
  EXPECT_STREQ(key_, "");
  EXPECT_TRUE(logs_.Contains("Couldn't read key from line '" + std::string(65, 'k')));
}

TEST_F(ConfigFileReaderTest, ValueOf128CharactersFitsAndOf129Fails) {
  const std::string v128(128, 'v');
  ExpectPair("k=" + v128 + "\n", "k", v128);
  ExpectPair("k=\"" + v128 + "\"\n", "k", v128);
  Open("k=" + v128 + "v\n");
  EXPECT_FALSE(Next());
  Open("k=\"" + v128 + "v\"\n");
  EXPECT_FALSE(Next());
  EXPECT_STREQ(value_, "");
}

TEST_F(ConfigFileReaderTest, MissingEqualsNamesIndexAndCharacter) {
  Open("libPath  /lib\n");
  EXPECT_FALSE(Next());
  EXPECT_EQ(
      logs_.Count(LoggerLevel::ERROR,
                  "Couldn't find = symbol in line 'libPath  /lib\n', expected at idx 9, got /\n"),
      1u);
}

TEST_F(ConfigFileReaderTest, MissingValueFails) {
  Open("k= # nothing\n");
  EXPECT_FALSE(Next());
  EXPECT_TRUE(logs_.Contains("Couldn't read value from line 'k= # nothing\n'\n"));
}

TEST_F(ConfigFileReaderTest, DosLineEndsEndValuesButABareCrLfLineFails) {
  Open("a=b\r\n\r\nc=d\r\n");
  ASSERT_TRUE(Next());
  EXPECT_STREQ(value_, "b");
  EXPECT_FALSE(Next());
  EXPECT_TRUE(logs_.Contains("Couldn't read key from line '\r\n'\n"));
}

TEST_F(ConfigFileReaderTest, LastLineWithoutNewlineIsRead) { ExpectPair("k=v", "k", "v"); }

TEST_F(ConfigFileReaderTest, NulByteEndsTheLineText) {
  ExpectPair(std::string("k=v\0w=x\n", 8), "k", "v");
  EXPECT_FALSE(Next());
}

TEST_F(ConfigFileReaderTest, LineLongerThanTheBufferIsReadInPieces) {
  // The comment fills the first 1023 characters; the rest is a line of its own.
  Open("#" + std::string(1022, 'x') + "cpuCoresNumber=4\n");
  ASSERT_TRUE(Next());
  EXPECT_STREQ(key_, "");
  ASSERT_TRUE(Next());
  EXPECT_STREQ(key_, "cpuCoresNumber");
  EXPECT_STREQ(value_, "4");
}

TEST_F(ConfigFileReaderTest, SizesBeyondOneLineAreRefused) {
  Open("k=v\n");
  char key[65];
  char value[960];
  EXPECT_FALSE(reader_->ReadKeyValue(key, 65, value, 960));
  EXPECT_TRUE(logs_.Contains("key length 65 plus value length 960 larger than line length 1024\n"));
  EXPECT_TRUE(reader_->ReadKeyValue(key, 65, value, 959));
  EXPECT_STREQ(value, "v");
}

TEST_F(ConfigFileReaderTest, MissingFileReadsNothing) {
  reader_ = CreateConfigFileReader(dir_.File("absent.cfg").c_str(), 0);
  ASSERT_NE(reader_, nullptr);
  EXPECT_FALSE(Next());
  EXPECT_TRUE(logs_.Contains("Failed opening file '" + dir_.File("absent.cfg")));
}

TEST_F(ConfigFileReaderTest, PathOf256CharactersIsRefused) {
  EXPECT_NE(CreateConfigFileReader(std::string(255, 'p').c_str(), 0), nullptr);
  EXPECT_EQ(CreateConfigFileReader(std::string(256, 'p').c_str(), 0), nullptr);
}

}  // namespace
