#include "common/ProcessUtils.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "common/ProcRoot.h"
#include "tests/support/TempDir.h"

namespace {

class FakeProcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(getpid(), GetCachedPid());
    const std::string pidDir = dir_.File(std::to_string(GetCachedPid()));
    ASSERT_EQ(0, mkdir(pidDir.c_str(), 0755));
    exe_ = pidDir + "/exe";
    SetProcRoot(dir_.path().c_str());
  }
  void TearDown() override { SetProcRoot(nullptr); }

  TempDir dir_;
  std::string exe_;
  char buffer_[9];
};

TEST_F(FakeProcTest, DirectoryOfTheLinkTargetNeverOverrunning) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(StatusCode::FAILURE, GetRunningFromPath(buffer_, 8));
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(0u, out.find("Failed obtaining link for " + exe_ + "\n, errno ")) << out;
  ASSERT_EQ(0, symlink("/abcdefgh/ijkl", exe_.c_str()));
  std::memset(buffer_, 'Z', sizeof(buffer_));
  ASSERT_EQ(StatusCode::SUCCESS, GetRunningFromPath(buffer_, 8));
  EXPECT_EQ('Z', buffer_[8]) << "a link filling the buffer is cut, not overrun";
  ASSERT_EQ(0, unlink(exe_.c_str()));
  ASSERT_EQ(0, symlink("/opt/wd", exe_.c_str()));
  ASSERT_EQ(StatusCode::SUCCESS, GetRunningFromPath(buffer_, 8));
  EXPECT_STREQ("/opt", buffer_);
}

class AffinityTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(0, sched_getaffinity(0, sizeof(saved_), &saved_)); }
  void TearDown() override { sched_setaffinity(0, sizeof(saved_), &saved_); }
  cpu_set_t saved_;
};

TEST_F(AffinityTest, MaskBitsSelectCpusBelowTheCountAndEmptySetsFail) {
  if (!CPU_ISSET(0, &saved_)) GTEST_SKIP() << "CPU 0 is not ours to use";
  cpu_set_t now;
  for (const int count : {2, 1}) {
    ASSERT_EQ(StatusCode::SUCCESS, CommonSetCpuAffinity(count == 2 ? 0x1 : 0x3, count));
    ASSERT_EQ(0, sched_getaffinity(0, sizeof(now), &now));
    EXPECT_EQ(1, CPU_COUNT(&now)) << count;
    EXPECT_TRUE(CPU_ISSET(0, &now));
  }
  EXPECT_EQ(StatusCode::FAILURE, CommonSetCpuAffinity(0xFFFFFFFF, 0));
  EXPECT_EQ(StatusCode::FAILURE, CommonSetCpuAffinity(0x2, 1));
}

}  // namespace
