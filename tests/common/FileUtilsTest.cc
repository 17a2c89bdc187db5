#include "common/FileUtils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/TempDir.h"

namespace {

class FileUtilsTest : public ::testing::Test {
 protected:
  TempDir dir_;
};

TEST_F(FileUtilsTest, ExistenceOfFilesAndDanglingLinks) {
  const std::string file = dir_.Write("f", "x");
  const std::string dangling = dir_.File("dangling");
  ASSERT_EQ(0, symlink(dir_.File("missing").c_str(), dangling.c_str()));
  EXPECT_TRUE(FileExists(file.c_str()));
  EXPECT_FALSE(FileExists(dangling.c_str())) << "access follows the link";
  EXPECT_TRUE(symlink_exists(dangling.c_str())) << "lstat does not";
  EXPECT_FALSE(symlink_exists(dir_.File("missing").c_str()));
}

TEST_F(FileUtilsTest, ModeAndSize) {
  const std::string file = dir_.Write("f", "12345");
  EXPECT_EQ(StatusCode::SUCCESS, FileChangeMode(file.c_str(), 0111));
  struct stat st {};
  ASSERT_EQ(0, stat(file.c_str(), &st));
  EXPECT_EQ(0111u, st.st_mode & 07777);
  EXPECT_EQ(StatusCode::FAILURE, FileChangeMode(dir_.File("missing").c_str(), 0644));
  EXPECT_EQ(5u, FileUtils::GetFileSizeInBytes(file.c_str()));
  EXPECT_EQ(0xFFFFFFFFu, FileUtils::GetFileSizeInBytes(dir_.File("missing").c_str()));
}

TEST_F(FileUtilsTest, PidAndIntFilesReplaceTheirContent) {
  const std::string pidFile = dir_.Write("wd.pid", "a much longer previous content\n");
  EXPECT_EQ(StatusCode::SUCCESS, WritePidFile(1234, pidFile.c_str()));
  EXPECT_EQ("1234\n", ReadWholeFile(pidFile));
  EXPECT_EQ(StatusCode::SUCCESS, WriteIntToFile(-7, pidFile.c_str()));
  EXPECT_EQ("-7", ReadWholeFile(pidFile));
  EXPECT_EQ(StatusCode::FAILURE, WritePidFile(1, dir_.File("no/such/dir").c_str()));
}

TEST_F(FileUtilsTest, WriteStringMeasuresAtMostThirtyTwoCharacters) {
  const std::string path = dir_.File("s");
  EXPECT_EQ(StatusCode::SUCCESS, WriteStringToFile("short", path.c_str()));
  const std::string longText(40, 'x');
  EXPECT_EQ(StatusCode::FAILURE, WriteStringToFile(longText.c_str(), path.c_str()))
      << "40 written against a length measured up to 32";
  EXPECT_EQ(longText, ReadWholeFile(path));
}

TEST_F(FileUtilsTest, CopyKeepsALongerDestinationsTail) {
  const std::string src = dir_.Write("src", "new");
  const std::string dst = dir_.Write("dst", "old-and-longer");
  EXPECT_EQ(StatusCode::SUCCESS, CopyFile(src.c_str(), dst.c_str(), 0600, false, false));
  EXPECT_EQ("new-and-longer", ReadWholeFile(dst));
  EXPECT_EQ(StatusCode::SUCCESS, CopyFile(src.c_str(), dst.c_str(), 0600, false, true));
  EXPECT_EQ("new", ReadWholeFile(dst));
}

TEST_F(FileUtilsTest, CopyModeFromSourceOrArgument) {
  const std::string src = dir_.Write("src", "x");
  ASSERT_EQ(0, chmod(src.c_str(), 0751));
  const std::string kept = dir_.File("kept");
  const std::string given = dir_.File("given");
  ASSERT_EQ(StatusCode::SUCCESS, CopyFile(src.c_str(), kept.c_str(), 0600, true, false));
  ASSERT_EQ(StatusCode::SUCCESS, CopyFile(src.c_str(), given.c_str(), 0640, false, false));
  const mode_t mask = umask(0);
  umask(mask);
  struct stat st {};
  ASSERT_EQ(0, stat(kept.c_str(), &st));
  EXPECT_EQ(0751u & ~mask, st.st_mode & 07777);
  ASSERT_EQ(0, stat(given.c_str(), &st));
  EXPECT_EQ(0640u & ~mask, st.st_mode & 07777);
}

TEST_F(FileUtilsTest, CopyFailuresPrintAndFail) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(StatusCode::FAILURE,
            CopyFile(dir_.File("missing").c_str(), dir_.File("d").c_str(), 0600, false, false));
  const std::string src = dir_.Write("src", "x");
  EXPECT_EQ(StatusCode::FAILURE,
            CopyFile(src.c_str(), dir_.File("no/dir").c_str(), 0600, false, false));
  EXPECT_EQ("Can't open srcCan't open or create dest", testing::internal::GetCapturedStdout());
}

TEST(StrEndsWithTest, SuffixMustBeStrictlyShorter) {
  EXPECT_TRUE(StrEndsWith("abc.so", ".so"));
  EXPECT_FALSE(StrEndsWith(".so", ".so"));
  EXPECT_FALSE(StrEndsWith("abc.so.1", ".so"));
  EXPECT_FALSE(StrEndsWith("abc", ""));
  EXPECT_FALSE(StrEndsWith(nullptr, ".so"));
}

}  // namespace
