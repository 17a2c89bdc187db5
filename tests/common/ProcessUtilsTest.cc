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

TEST(ProcessUtilsTest, CachedPidIsOwnPid) {
  EXPECT_EQ(getpid(), GetCachedPid());
  EXPECT_EQ(GetCachedPid(), GetCachedPid());
}

TEST(ProcessUtilsTest, RunningPathIsTheExecutablesDirectory) {
  char buffer[512];
  ASSERT_EQ(StatusCode::SUCCESS, GetRunningFromPath(buffer, sizeof(buffer) - 1));
  char exe[512] = {};
  ASSERT_GT(readlink("/proc/self/exe", exe, sizeof(exe) - 1), 0);
  const std::string expected = std::string(exe).substr(0, std::string(exe).rfind('/'));
  EXPECT_EQ(expected, buffer);
}

class FakeProcTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string pidDir = dir_.File(std::to_string(getpid()));
    ASSERT_EQ(0, mkdir(pidDir.c_str(), 0755));
    exe_ = pidDir + "/exe";
    SetProcRoot(dir_.path().c_str());
  }
  void TearDown() override { SetProcRoot(nullptr); }

  TempDir dir_;
  std::string exe_;
};

TEST_F(FakeProcTest, DirectoryOfTheLinkTarget) {
  ASSERT_EQ(0, symlink("/opt/quillmor/40.5/quillmorWD", exe_.c_str()));
  char buffer[64];
  ASSERT_EQ(StatusCode::SUCCESS, GetRunningFromPath(buffer, sizeof(buffer) - 1));
  EXPECT_STREQ("/opt/quillmor/40.5", buffer);
}

TEST_F(FakeProcTest, MissingLinkIsReportedOnStandardOutput) {
  char buffer[64];
  testing::internal::CaptureStdout();
  EXPECT_EQ(StatusCode::FAILURE, GetRunningFromPath(buffer, sizeof(buffer) - 1));
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(0u, out.find("Failed obtaining link for " + exe_ + "\n, errno ")) << out;
}

TEST_F(FakeProcTest, LinkFillingTheBufferNeverOverruns) {
  ASSERT_EQ(0, symlink("/abcdefgh/ijkl", exe_.c_str()));
  char buffer[9];
  std::memset(buffer, 'Z', sizeof(buffer));
  ASSERT_EQ(StatusCode::SUCCESS, GetRunningFromPath(buffer, 8));
  EXPECT_EQ('Z', buffer[8]);
}

class AffinityTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(0, sched_getaffinity(0, sizeof(saved_), &saved_)); }
  void TearDown() override { sched_setaffinity(0, sizeof(saved_), &saved_); }
  cpu_set_t saved_;
};

TEST_F(AffinityTest, MaskBitsSelectCpusBelowTheCount) {
  if (!CPU_ISSET(0, &saved_)) GTEST_SKIP() << "CPU 0 is not ours to use";
  ASSERT_EQ(StatusCode::SUCCESS, CommonSetCpuAffinity(0x1, 2));
  cpu_set_t now;
  ASSERT_EQ(0, sched_getaffinity(0, sizeof(now), &now));
  EXPECT_EQ(1, CPU_COUNT(&now));
  EXPECT_TRUE(CPU_ISSET(0, &now));
  ASSERT_EQ(StatusCode::SUCCESS, CommonSetCpuAffinity(0x3, 1));
  ASSERT_EQ(0, sched_getaffinity(0, sizeof(now), &now));
  EXPECT_EQ(1, CPU_COUNT(&now)) << "CPU 1 lies beyond the count";
}

TEST_F(AffinityTest, EmptySetsAreRefused) {
  EXPECT_EQ(StatusCode::FAILURE, CommonSetCpuAffinity(0xFFFFFFFF, 0));
  EXPECT_EQ(StatusCode::FAILURE, CommonSetCpuAffinity(0x2, 1));
}

}  // namespace
