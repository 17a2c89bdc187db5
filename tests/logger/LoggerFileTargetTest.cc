#include "logger/LoggerFileTarget.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "logger/LoggerUtils.h"
#include "tests/logger/LogLines.h"
#include "tests/support/TempDir.h"

namespace {

const std::string kMarker = LoggerUtils::kLogFileEndMarker;
const std::string kHeader = Header("file-target");

std::string Line(char c, size_t length = 100) { return std::string(length - 1, c) + "\n"; }

class LoggerFileTargetTest : public ::testing::Test {
 protected:
  void SetUp() override { oldMask_ = umask(022); }
  void TearDown() override { umask(oldMask_); }

  // An enabled target whose header every later file starts with.
  std::unique_ptr<LoggerFileTarget> Enabled(uint32_t limit, const std::string& directory = "") {
    auto config = LoggerConfig::CreateFileLoggerConfig(
        directory.empty() ? dir_.path().c_str() : directory.c_str(), "wd", limit, 2, 77);
    auto target = LoggerFileTarget::Create(config.get());
    target->Enable();
    EXPECT_TRUE(target->WriteHeader(kHeader.data(), kHeader.size()));
    return target;
  }
  std::string Content(uint32_t generation, uint32_t index) const {
    return ReadWholeFile(
        dir_.File("wd_77_" + std::to_string(generation) + "." + std::to_string(index)));
  }
  static bool Write(LoggerFileTarget& target, const std::string& line) {
    return target.Write(line.data(), line.size());
  }

  TempDir dir_;
  mode_t oldMask_ = 0;
};

TEST_F(LoggerFileTargetTest, FileHas0644HeaderAtOffsetZeroAndEndMarkerOnlyWhenDisabled) {
  auto target = Enabled(25000);
  struct stat st {};
  ASSERT_EQ(stat(dir_.File("wd_77_0.0").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  ASSERT_TRUE(Write(*target, Line('a')));
  ASSERT_TRUE(target->WriteHeader(kHeader.data(), kHeader.size()));
  target->Disable();
  EXPECT_FALSE(Write(*target, Line('b')));
  EXPECT_EQ(Content(0, 0), kHeader + Line('a') + kMarker);
  target = Enabled(25000);  // reopening empties the file; destruction adds no marker
  target.reset();
  EXPECT_EQ(Content(0, 0), kHeader);
}

TEST_F(LoggerFileTargetTest, FullFilesRotateWithTheHeaderAndAReopenedFullFileAgainAtOnce) {
  auto target = Enabled(1000);
  std::string tenLines;
  for (int i = 0; i < 10; ++i) tenLines += Line('x');
  ASSERT_TRUE(Write(*target, tenLines.substr(0, 999)));
  EXPECT_EQ(Content(0, 0), kHeader + tenLines.substr(0, 999)) << "one byte below the limit";
  ASSERT_TRUE(Write(*target, tenLines.substr(999)));
  EXPECT_EQ(Content(0, 0), kHeader + tenLines + kMarker);
  EXPECT_EQ(Content(0, 1), kHeader);
  ASSERT_TRUE(Write(*target, tenLines));
  EXPECT_EQ(Content(0, 0), kHeader);
  ASSERT_TRUE(Write(*target, Line('L')));
  EXPECT_EQ(Content(0, 0), kHeader + Line('L') + kMarker);
  ASSERT_TRUE(Write(*target, Line('N')));
  ASSERT_TRUE(target->SetGeneration(1));  // a new generation starts again at index 0
  EXPECT_FALSE(target->SetGeneration(1));
  EXPECT_EQ(Content(0, 1), kHeader + Line('N') + kMarker);
  EXPECT_EQ(Content(1, 0), kHeader);
}

TEST_F(LoggerFileTargetTest, BadConfigurationMakesNoTargetAndAnUnopenableFileKeepsItDisabled) {
  auto none = LoggerConfig::CreateFileLoggerConfig(dir_.path().c_str(), "wd", 25000, 0, 77);
  EXPECT_EQ(LoggerFileTarget::Create(none.get()), nullptr);
  const std::string longDir = dir_.File(std::string(240, 'd'));  // path of 256 or more
  ASSERT_EQ(mkdir(longDir.c_str(), 0755), 0);
  auto target = Enabled(25000, longDir);
  EXPECT_FALSE(Write(*target, Line('a')));
}

}  // namespace
