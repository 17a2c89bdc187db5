#include "common/ProcessUtils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "common/ProcRoot.h"
#include "tests/support/TempDir.h"

namespace {

TEST(ProcessUtilsTest, ExecutableDirectoryNeverOverrunsItsBuffer) {
  TempDir dir;
  const std::string pidDir = dir.File(std::to_string(GetCachedPid()));
  ASSERT_EQ(0, mkdir(pidDir.c_str(), 0755));
  ASSERT_EQ(0, symlink("/abcdefgh/ijkl", (pidDir + "/exe").c_str()));
  SetProcRoot(dir.path().c_str());
  char buffer[9];
  std::memset(buffer, 'Z', sizeof(buffer));
  EXPECT_EQ(StatusCode::SUCCESS, GetRunningFromPath(buffer, 8));
  SetProcRoot(nullptr);
  EXPECT_EQ('Z', buffer[8]) << "a link filling the buffer is cut, not overrun";
}

}  // namespace
