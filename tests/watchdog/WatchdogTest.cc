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

TEST_F(WatchdogTest, TermSignalOnlyLogsAndSetsTheFlagOnce) {
  ASSERT_EQ(SetTermSignal(), 0);
  raise(SIGTERM);
  EXPECT_EQ(terminationRequested, 1);
  EXPECT_EQ(logs_.Dump(), "Larkspan termination signal:15 stopping agent and exit\n");
  EXPECT_EQ(logs_.Lines()[0].level, LoggerLevel::INFO);
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

TEST_F(WatchdogTest, DumpShowsEveryKeyWithItsDefaultInOrder) {
  Config::SetBoolValue(CFG_SET_LD_LIB_PATH, true);
  logs_.Clear();
  DumpConfigValues();
  std::string expected =
      "Config value 'agentSymLinkPath' = '/var/quillmor/quillmorUserAgent'\n"
      "Config value 'systemExecSymLinkPath' = '/var/quillmor/quillmorSystemExec'\n"
      "Config value 'moduleSymLinkPath' = '/var/quillmor/quillmorKernelAgent'\n"
      "Config value 'controlScriptPath' = '/var/quillmor/quillmor_control.sh'\n"
      "Config value 'teardownScriptPath' = '/var/quillmor/quillmor_teardown.sh'\n"
      "Config value 'libPath' = '/var/quillmor'\nConfig value 'downloadDir' = '/var/quillmor'\n"
      "Config value 'dnsServers' = '2001:4860:4860::8888,2001:4860:4860::8844,8.8.8.8,8.8.4.4'\n"
      "Config value 'wdLogDir' = '/var/log/quillmor'\nConfig value 'wdLogPath' = 'WatchdogLogger'\n"
      "Config value 'cpuAffinityMask' = 0\nConfig value 'cpuCoresNumber' = 2\n"
      "Config value 'setLdLibPath' = true\nConfig value 'localVersionPath' = ''\n"
      "Config value 'pidFilePath' = ''\nConfig value 'DelayTimeIncreaseSec' = 10\n"
      "Config value 'MaxDelayPeriodSec' = 600\nConfig value 'ConcurrentCleanupSec' = 900\n"
      "Config value 'SleepOnCriticalErrorSec' = 3600\nConfig value 'CriticalErrorRetries' = 72\n";
  const int policies[] = {10, 900, 2, 5, 300, 1, 0, 0, 0, 1, 5, 1, 0, 0, 0, 0, 0, 0};
  const char* const fields[] = {"NumEvents", "DurationSec", "Result"};
  for (int i = 0; i < 18; ++i) {
    expected += std::string("Config value '") + (i < 9 ? "Normal" : "Safe") +
                std::to_string(i % 9 / 3 + 1) + fields[i % 3] +
                "' = " + std::to_string(policies[i]) + "\n";
  }
  expected += "Config value 'ProcModulesRetries' = 3\n";
  EXPECT_EQ(logs_.Dump(), expected);
  EXPECT_EQ(logs_.Count(LoggerLevel::INFO, ""), static_cast<size_t>(CFG_NUM_OF_KEYS));
}

}  // namespace
