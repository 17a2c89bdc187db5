#include "common/FileUtils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/TempDir.h"

namespace {

class FileUtilsTest : public ::testing::Test {
 protected:
  mode_t ModeOf(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(0, stat(path.c_str(), &st)) << path;
    return st.st_mode & 07777;
  }

  TempDir dir_;
  const std::string missing_ = dir_.File("missing");
};

TEST_F(FileUtilsTest, LinksSizesSuffixesAndSmallWritesThatReplaceTheContent) {
  const std::string dangling = dir_.File("dangling");
  ASSERT_EQ(0, symlink(missing_.c_str(), dangling.c_str()));
  EXPECT_FALSE(FileExists(dangling.c_str())) << "access follows the link";
  EXPECT_TRUE(symlink_exists(dangling.c_str())) << "lstat does not";
  EXPECT_EQ(0xFFFFFFFFu, FileUtils::GetFileSizeInBytes(missing_.c_str()));
  EXPECT_FALSE(StrEndsWith(".so", ".so")) << "the text must be strictly longer";
  EXPECT_FALSE(StrEndsWith("abc.so.1", ".so"));
  const std::string path = dir_.Write("wd.pid", "a much longer previous content\n");
  EXPECT_EQ(StatusCode::SUCCESS, WriteIntToFile(-7, path.c_str()));
  EXPECT_EQ("-7", ReadWholeFile(path));
  EXPECT_EQ(2u, FileUtils::GetFileSizeInBytes(path.c_str()));
  const std::string longText(40, 'x');
  EXPECT_EQ(StatusCode::FAILURE, WriteStringToFile(longText.c_str(), path.c_str()));
  EXPECT_EQ(longText, ReadWholeFile(path)) << "written, but measured only up to 32";
}

TEST_F(FileUtilsTest, CopyKeepsALongerDestinationsTailChoosesTheModeAndPrintsFailures) {
  const std::string src = dir_.Write("src", "new");
  ASSERT_EQ(0, chmod(src.c_str(), 0751));
  const std::string dst = dir_.Write("dst", "old-and-longer");
  EXPECT_EQ(StatusCode::SUCCESS, CopyFile(src.c_str(), dst.c_str(), 0600, false, false));
  EXPECT_EQ("new-and-longer", ReadWholeFile(dst));
  EXPECT_EQ(StatusCode::SUCCESS, CopyFile(src.c_str(), dst.c_str(), 0600, false, true));
  EXPECT_EQ("new", ReadWholeFile(dst));
  const mode_t mask = umask(0);
  umask(mask);
  const std::string kept = dir_.File("kept");
  ASSERT_EQ(StatusCode::SUCCESS, CopyFile(src.c_str(), kept.c_str(), 0600, true, false));
  EXPECT_EQ(0751u & ~mask, ModeOf(kept));
  testing::internal::CaptureStdout();
  EXPECT_EQ(StatusCode::FAILURE, CopyFile(missing_.c_str(), dir_.File("d").c_str(), 0600, 0, 0));
  EXPECT_EQ(StatusCode::FAILURE, CopyFile(src.c_str(), dir_.File("no/d").c_str(), 0600, 0, 0));
  EXPECT_EQ("Can't open srcCan't open or create dest", testing::internal::GetCapturedStdout());
}

}  // namespace
