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

TEST_F(WatchdogTest, DumpLogsEveryKeyInOrderByType) {
  Config::SetBoolValue(CFG_SET_LD_LIB_PATH, true);
  LogCapture logs;
  DumpConfigValues();
  const std::vector<LogCapture::Line> lines = logs.Lines();
  ASSERT_EQ(lines.size(), static_cast<size_t>(CFG_NUM_OF_KEYS)) << logs.Dump();
  for (const LogCapture::Line& line : lines) EXPECT_EQ(line.level, LoggerLevel::INFO);
  EXPECT_EQ(lines[0].message,
            "Config value 'agentSymLinkPath' = '/var/quillmor/quillmorUserAgent'\n");
  EXPECT_EQ(lines[11].message, "Config value 'cpuCoresNumber' = 2\n");
  EXPECT_EQ(lines[12].message, "Config value 'setLdLibPath' = true\n");
  EXPECT_EQ(lines[14].message, "Config value 'pidFilePath' = ''\n");
  EXPECT_EQ(lines[38].message, "Config value 'ProcModulesRetries' = 3\n");
}

}  // namespace
