#include "watchdog/Watchdog.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

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
};

TEST_F(WatchdogTest, TermSignalOnlyLogsAndSetsTheFlag) {
  LogCapture logs;
  ASSERT_EQ(SetTermSignal(), 0);
  ASSERT_EQ(terminationRequested, 0);
  raise(SIGTERM);
  EXPECT_EQ(terminationRequested, 1);
  EXPECT_EQ(
      logs.Count(LoggerLevel::INFO, "Larkspan termination signal:15 stopping agent and exit\n"),
      1u);
}

TEST_F(WatchdogTest, SecondTermSignalKillsTheProcess) {
  EXPECT_EXIT(
      {
        SetTermSignal();
        raise(SIGTERM);
        raise(SIGTERM);
        std::exit(0);
      },
      ::testing::KilledBySignal(SIGTERM), "");
}

TEST_F(WatchdogTest, RemovesThePidFileNamedByPrefixAndProgram) {
  const std::string pidFile = dir_.Write("run-quillmorWD.pid", "1\n");
  Config::SetStrValue(CFG_PID_FILE_PATH, (dir_.path() + "/run-").c_str());
  RemovePidFile("quillmorWD", 0);
  EXPECT_TRUE(Exists(pidFile)) << "pid 0 must not remove anything";
  RemovePidFile("quillmorWD", getpid());
  EXPECT_FALSE(Exists(pidFile));
  RemovePidFile("quillmorWD", getpid());  // already gone: nothing to report
}

TEST_F(WatchdogTest, EmptyPidFilePathMeansNoPidFile) {
  // With an empty prefix the name alone would point into the working directory.
  const std::string pidFile = dir_.Write("x.pid", "1\n");
  const std::string cwd = std::filesystem::current_path();
  std::filesystem::current_path(dir_.path());
  RemovePidFile("x", getpid());
  std::filesystem::current_path(cwd);
  EXPECT_TRUE(Exists(pidFile));
}

TEST_F(WatchdogTest, WatchdogExitRemovesThePidFileWithoutALogger) {
  const std::string pidFile = dir_.Write("quillmorWD.pid", "1\n");
  const std::string prefix = dir_.path() + "/";
  EXPECT_EXIT(
      {
        Config::SetStrValue(CFG_PID_FILE_PATH, prefix.c_str());
        programName = "quillmorWD";
        WatchdogExit(3);
      },
      ::testing::ExitedWithCode(3), "");
  EXPECT_FALSE(Exists(pidFile));
}

// The dump of the defaults shows every key's number (its place), name, type
// (the format) and default: all of them are shared with the agent.
TEST_F(WatchdogTest, DumpShowsEveryKeyWithItsDefault) {
  LogCapture logs;
  DumpConfigValues();
  EXPECT_EQ(logs.Count(LoggerLevel::INFO, "Config value '"), static_cast<size_t>(CFG_NUM_OF_KEYS));
  EXPECT_EQ(logs.Dump(),
            "Config value 'agentSymLinkPath' = '/var/quillmor/quillmorUserAgent'\n"
            "Config value 'systemExecSymLinkPath' = '/var/quillmor/quillmorSystemExec'\n"
            "Config value 'moduleSymLinkPath' = '/var/quillmor/quillmorKernelAgent'\n"
            "Config value 'controlScriptPath' = '/var/quillmor/quillmor_control.sh'\n"
            "Config value 'teardownScriptPath' = '/var/quillmor/quillmor_teardown.sh'\n"
            "Config value 'libPath' = '/var/quillmor'\n"
            "Config value 'downloadDir' = '/var/quillmor'\n"
            "Config value 'dnsServers' = "
            "'2001:4860:4860::8888,2001:4860:4860::8844,8.8.8.8,8.8.4.4'\n"
            "Config value 'wdLogDir' = '/var/log/quillmor'\n"
            "Config value 'wdLogPath' = 'WatchdogLogger'\n"
            "Config value 'cpuAffinityMask' = 0\n"
            "Config value 'cpuCoresNumber' = 2\n"
            "Config value 'setLdLibPath' = false\n"
            "Config value 'localVersionPath' = ''\n"
            "Config value 'pidFilePath' = ''\n"
            "Config value 'DelayTimeIncreaseSec' = 10\n"
            "Config value 'MaxDelayPeriodSec' = 600\n"
            "Config value 'ConcurrentCleanupSec' = 900\n"
            "Config value 'SleepOnCriticalErrorSec' = 3600\n"
            "Config value 'CriticalErrorRetries' = 72\n"
            "Config value 'Normal1NumEvents' = 10\n"
            "Config value 'Normal1DurationSec' = 900\n"
            "Config value 'Normal1Result' = 2\n"
            "Config value 'Normal2NumEvents' = 5\n"
            "Config value 'Normal2DurationSec' = 300\n"
            "Config value 'Normal2Result' = 1\n"
            "Config value 'Normal3NumEvents' = 0\n"
            "Config value 'Normal3DurationSec' = 0\n"
            "Config value 'Normal3Result' = 0\n"
            "Config value 'Safe1NumEvents' = 1\n"
            "Config value 'Safe1DurationSec' = 5\n"
            "Config value 'Safe1Result' = 1\n"
            "Config value 'Safe2NumEvents' = 0\n"
            "Config value 'Safe2DurationSec' = 0\n"
            "Config value 'Safe2Result' = 0\n"
            "Config value 'Safe3NumEvents' = 0\n"
            "Config value 'Safe3DurationSec' = 0\n"
            "Config value 'Safe3Result' = 0\n"
            "Config value 'ProcModulesRetries' = 3\n");
}

TEST_F(WatchdogTest, DumpShowsBooleansInLowerCase) {
  Config::SetBoolValue(CFG_SET_LD_LIB_PATH, true);
  LogCapture logs;
  DumpConfigValues();
  EXPECT_TRUE(logs.Contains("Config value 'setLdLibPath' = true\n"));
}

}  // namespace
