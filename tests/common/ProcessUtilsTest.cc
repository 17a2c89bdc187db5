#include "common/ProcessUtils.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "common/ProcRoot.h"
#include "common/Shell.h"
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

TEST(ProcessUtilsTest, MaskBitsSelectCpusBelowTheCount) {
  cpu_set_t saved;
  ASSERT_EQ(0, sched_getaffinity(0, sizeof(saved), &saved));
  if (!CPU_ISSET(0, &saved)) GTEST_SKIP() << "CPU 0 is not ours to use";
  cpu_set_t now;
  ASSERT_EQ(StatusCode::SUCCESS, CommonSetCpuAffinity(0x3, 1));
  ASSERT_EQ(0, sched_getaffinity(0, sizeof(now), &now));
  EXPECT_EQ(1, CPU_COUNT(&now));
  EXPECT_EQ(StatusCode::FAILURE, CommonSetCpuAffinity(0xFFFFFFFF, 0));
  sched_setaffinity(0, sizeof(saved), &saved);
}

// Past its limit a command is killed (too long for an end-to-end row).
TEST(ProcessUtilsTest, ShellCommandPastItsLimitIsKilled) {
  EXPECT_EQ(GetShell().Run("sleep 30", 200, nullptr), -1);
}

}  // namespace
