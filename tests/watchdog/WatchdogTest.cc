#include "watchdog/Watchdog.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "watchdog/Config.h"

namespace {

class WatchdogTest : public ::testing::Test {
 protected:
  ~WatchdogTest() override {
    Config::ResetToDefaults();
    std::signal(SIGTERM, SIG_DFL);
    terminationRequested = 0;
  }

  bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

  TempDir dir_;
  LogCapture logs_;
};

TEST_F(WatchdogTest, TermSignalSetsTheFlagOnce) {
  ASSERT_EQ(SetTermSignal(), 0);
  raise(SIGTERM);
  EXPECT_EQ(terminationRequested, 1);
  EXPECT_EXIT(raise(SIGTERM), ::testing::KilledBySignal(SIGTERM), "") << "one-shot handler";
}

TEST_F(WatchdogTest, PidFileIsPrefixAndProgramAndOnlyForARealPid) {
  const std::string pidFile = dir_.Write("run-quillmorWD.pid", "1\n");
  RemovePidFile(dir_.File("run-quillmorWD").c_str(), getpid());
  EXPECT_TRUE(Exists(pidFile)) << "no prefix, no pid file";
  Config::SetStrValue(CFG_PID_FILE_PATH, (dir_.path() + "/run-").c_str());
  RemovePidFile("quillmorWD", 0);
  EXPECT_TRUE(Exists(pidFile));
  programName = "quillmorWD";
  EXPECT_EXIT(WatchdogExit(3), ::testing::ExitedWithCode(3), "");
  EXPECT_FALSE(Exists(pidFile)) << "removed on the way out, without a logger";
}

TEST_F(WatchdogTest, DumpShowsEveryKeyInOrderWithItsType) {
  Config::SetBoolValue(CFG_SET_LD_LIB_PATH, true);
  logs_.Clear();
  DumpConfigValues();
  const auto lines = logs_.Lines();
  ASSERT_EQ(lines.size(), static_cast<size_t>(CFG_NUM_OF_KEYS));
  EXPECT_EQ(lines[0].message,
            "Config value 'agentSymLinkPath' = '/var/quillmor/quillmorUserAgent'\n");
  EXPECT_EQ(lines[CFG_CPU_CORES_NUMBER].message, "Config value 'cpuCoresNumber' = 2\n");
  EXPECT_EQ(lines[CFG_SET_LD_LIB_PATH].message, "Config value 'setLdLibPath' = true\n");
  EXPECT_EQ(lines.back().message, "Config value 'ProcModulesRetries' = 3\n");
}

}  // namespace
