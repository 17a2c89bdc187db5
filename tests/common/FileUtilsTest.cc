#include "common/FileUtils.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/TempDir.h"

namespace {

class FileUtilsTest : public ::testing::Test {
 protected:
  TempDir dir_;
  const std::string missing_ = dir_.File("missing");
};

TEST_F(FileUtilsTest, LinksAndSmallWritesThatReplaceTheContent) {
  const std::string dangling = dir_.File("dangling");
  ASSERT_EQ(0, symlink(missing_.c_str(), dangling.c_str()));
  EXPECT_FALSE(FileExists(dangling.c_str())) << "access follows the link";
  EXPECT_TRUE(symlink_exists(dangling.c_str())) << "lstat does not";
  const std::string path = dir_.Write("wd.pid", "a much longer previous content\n");
  EXPECT_EQ(StatusCode::SUCCESS, WritePidFile(-7, path.c_str()));
  EXPECT_EQ("-7\n", ReadWholeFile(path));
  const std::string longText(40, 'x');
  EXPECT_EQ(StatusCode::FAILURE, WriteStringToFile(longText.c_str(), path.c_str()));
  EXPECT_EQ(longText, ReadWholeFile(path)) << "written, but measured only up to 32";
}

}  // namespace
