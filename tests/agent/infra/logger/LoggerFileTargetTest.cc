#include "agent/src/infra/logger/LoggerFileTarget.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "agent/src/infra/logger/LogLineFormatter.h"
#include "agent/src/infra/logger/LoggerUtils.h"
#include "tests/support/TempDir.h"

namespace {

const std::string kMarker = LoggerUtils::kLogFileEndMarker;

class LoggerFileTargetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    oldMask_ = umask(022);
    char header[LoggerFileTarget::kHeaderLineSize];
    ASSERT_EQ(LogLineFormatter::FormatAccountIDHeaderLine(header, sizeof(header), "file-target"),
              101);
    header_ = header;
  }
  void TearDown() override { umask(oldMask_); }

  std::unique_ptr<LoggerFileTarget> MakeTarget(uint32_t limit, uint32_t files,
                                               const std::string& directory) {
    auto config = LoggerConfig::CreateFileLoggerConfig(directory.c_str(), "wd", limit, files, 77);
    return LoggerFileTarget::Create(config.get());
  }
  std::unique_ptr<LoggerFileTarget> MakeTarget(uint32_t limit, uint32_t files) {
    return MakeTarget(limit, files, dir_.path());
  }
  // Enables the target and makes its header the one every later file starts with.
  void EnableWithHeader(LoggerFileTarget& target) {
    target.Enable();
    ASSERT_TRUE(target.IsEnabled());
    ASSERT_TRUE(target.WriteHeader(header_.data(), header_.size()));
  }
  std::string Content(uint32_t generation, uint32_t index) const {
    return ReadWholeFile(
        dir_.File("wd_77_" + std::to_string(generation) + "." + std::to_string(index)));
  }
  static bool Write(LoggerFileTarget& target, const std::string& line) {
    return target.Write(line.data(), line.size());
  }

  TempDir dir_;
  std::string header_;
  mode_t oldMask_ = 0;
};

std::string Line(char c, size_t length) { return std::string(length - 1, c) + "\n"; }

TEST_F(LoggerFileTargetTest, EnableCreatesFileWithMode0644AndHeaderAtOffsetZero) {
  auto target = MakeTarget(25000, 2);
  ASSERT_NE(target, nullptr);
  EnableWithHeader(*target);
  struct stat st {};
  ASSERT_EQ(stat(dir_.File("wd_77_0.0").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  ASSERT_TRUE(Write(*target, Line('a', 50)));
  ASSERT_TRUE(target->WriteHeader(header_.data(), header_.size()));
  EXPECT_EQ(Content(0, 0), header_ + Line('a', 50));

  target->Disable();
  EXPECT_FALSE(Write(*target, Line('b', 50)));
  EXPECT_EQ(Content(0, 0), header_ + Line('a', 50) + kMarker);
}

TEST_F(LoggerFileTargetTest, DestroyingTheTargetWritesNoEndMarker) {
  auto target = MakeTarget(25000, 2);
  EnableWithHeader(*target);
  ASSERT_TRUE(Write(*target, Line('a', 50)));
  target.reset();
  EXPECT_EQ(Content(0, 0), header_ + Line('a', 50));
}

TEST_F(LoggerFileTargetTest, FileExceedsLimitByAtMostOneLineAndNextStartsWithHeader) {
  auto target = MakeTarget(25000, 2);
  EnableWithHeader(*target);
  const std::string line = Line('x', 200);
  int lines = 0;
  while (access(dir_.File("wd_77_0.1").c_str(), F_OK) != 0 && lines < 1000) {
    ASSERT_TRUE(Write(*target, line));
    ++lines;
  }
  const std::string first = Content(0, 0);
  const size_t counted = first.size() - header_.size() - kMarker.size();
  EXPECT_GE(counted, 25000u);
  EXPECT_LT(counted, 25000u + line.size());
  EXPECT_EQ(first.substr(0, header_.size()), header_);
  EXPECT_EQ(first.substr(first.size() - kMarker.size()), kMarker);
  EXPECT_EQ(Content(0, 1), header_);
  ASSERT_TRUE(Write(*target, line));
  EXPECT_EQ(Content(0, 1), header_ + line);
}

TEST_F(LoggerFileTargetTest, ReopenedFullFileRotatesAgainOnItsFirstLine) {
  auto target = MakeTarget(1000, 2);
  EnableWithHeader(*target);
  const std::string line = Line('x', 100);
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(Write(*target, line));  // both files filled once
  EXPECT_EQ(Content(0, 0), header_);

  ASSERT_TRUE(Write(*target, Line('L', 100)));
  EXPECT_EQ(Content(0, 0), header_ + Line('L', 100) + kMarker);
  ASSERT_TRUE(Write(*target, Line('M', 100)));
  EXPECT_EQ(Content(0, 1), header_ + Line('M', 100) + kMarker);
  EXPECT_EQ(Content(0, 0), header_);
  ASSERT_TRUE(Write(*target, Line('N', 100)));
  EXPECT_EQ(Content(0, 0), header_ + Line('N', 100));
}

TEST_F(LoggerFileTargetTest, NewGenerationClosesTheFileAndStartsAtIndexZero) {
  auto target = MakeTarget(25000, 2);
  EnableWithHeader(*target);
  ASSERT_TRUE(Write(*target, Line('a', 40)));
  EXPECT_FALSE(target->SetGeneration(0));
  EXPECT_EQ(Content(0, 0), header_ + Line('a', 40));

  ASSERT_TRUE(target->SetGeneration(1));
  EXPECT_EQ(Content(0, 0), header_ + Line('a', 40) + kMarker);
  EXPECT_EQ(Content(1, 0), header_);
  ASSERT_TRUE(Write(*target, Line('b', 40)));
  EXPECT_EQ(Content(1, 0), header_ + Line('b', 40));
}

TEST_F(LoggerFileTargetTest, PathOf256CharactersOrMoreKeepsTargetDisabled) {
  const std::string longDir = dir_.path() + "/" + std::string(240, 'd');
  ASSERT_EQ(mkdir(longDir.c_str(), 0755), 0);
  auto target = MakeTarget(25000, 2, longDir);
  target->Enable();
  EXPECT_FALSE(target->IsEnabled());
  EXPECT_FALSE(Write(*target, Line('a', 10)));
}

TEST_F(LoggerFileTargetTest, FailedReopenMakesWriteFailUntilAFileCanBeOpenedAgain) {
  const std::string logs = dir_.File("logs");
  ASSERT_EQ(mkdir(logs.c_str(), 0755), 0);
  auto target = MakeTarget(100, 2, logs);
  EnableWithHeader(*target);
  ASSERT_TRUE(Write(*target, Line('a', 50)));
  ASSERT_EQ(unlink((logs + "/wd_77_0.0").c_str()), 0);
  ASSERT_EQ(rmdir(logs.c_str()), 0);

  EXPECT_TRUE(Write(*target, Line('b', 50)));  // written, then the rotation fails
  EXPECT_TRUE(target->IsEnabled());
  EXPECT_FALSE(Write(*target, Line('c', 50)));

  ASSERT_EQ(mkdir(logs.c_str(), 0755), 0);
  ASSERT_TRUE(target->SetGeneration(1));
  EXPECT_TRUE(Write(*target, Line('d', 50)));
  EXPECT_EQ(ReadWholeFile(logs + "/wd_77_1.0"), header_ + Line('d', 50));
}

TEST_F(LoggerFileTargetTest, CreationRefusesMissingConfigurationAndEmptyRotation) {
  EXPECT_EQ(LoggerFileTarget::Create(nullptr), nullptr);
  EXPECT_EQ(MakeTarget(25000, 0), nullptr);
  auto console = LoggerConfig::CreateConsoleLoggerConfig();
  EXPECT_EQ(LoggerFileTarget::Create(console.get()), nullptr);
}

}  // namespace
