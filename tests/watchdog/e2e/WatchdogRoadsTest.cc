// Whole roads through the built quillmorWD: a prepared installation, real
// children (qwd_test_child playing the agent and the system-exec process
// from plan files), the fixed sockets on a private /var, all in a private
// pid namespace. Each case follows one road from start to exit.

#include "tests/watchdog/e2e/WatchdogRun.h"

namespace {

using namespace e2e;

class WatchdogRoadsTest : public WatchdogRun {};

std::string PidFileText(pid_t pid) { return std::to_string(pid) + "\n"; }

TEST_F(WatchdogRoadsTest, StartPreparesTheInstallationAndSigtermEndsCleanly) {
  // A heartbeat naming the watchdog and a version request without data
  // (after one with data) must change nothing.
  Start(
      "hb pid parent cmd 8 cmd 1 cmd 2 228 0 text 6 acct42 cmd 3 7 text 5 ../x text 5 "
      "cmd 7 4294967295 0\nbeat");
  ASSERT_TRUE(WaitFor("plan/quillmorUserAgent.replies", "7 0"));
  for (const char* link : {"quillmorUserAgent", "quillmorSystemExec"}) {
    EXPECT_EQ(fs::read_symlink(dir_.File("bin/") + link), version_ + "/" + link);
  }
  EXPECT_EQ(fs::read_symlink(dir_.File("lib/libdemo.so.1")), version_ + "/libdemo.so.1");
  struct stat info {};
  stat((version_ + "/quillmor_teardown.sh").c_str(), &info);
  EXPECT_EQ(info.st_mode & 07777, 0111u);
  EXPECT_FALSE(fs::exists(dir_.File("dl/1.2.3")));
  EXPECT_TRUE(fs::exists(dir_.File("dl/tmp")) && fs::exists(dir_.File("dl/9.9")));
  EXPECT_EQ(ReadWholeFile(dir_.File("run/quillmorWD.pid")), PidFileText(pid_));
  EXPECT_EQ(Count("Res Limits:"), 4u);
  EXPECT_EQ(Count("snprintf failed!"), 2u);
  EXPECT_EQ(Count("Config value '"), 39u);
  for (const char* line :
       {"'cpuCoresNumber' = 2 ", "'setLdLibPath' = false ", "'wdLogPath' = 'WatchdogLogger' "}) {
    EXPECT_EQ(Count(std::string("Config value ") + line), 1u) << line;
  }
  EXPECT_NE(ReadWholeFile(dir_.File("log/Quillmor_" + kVersion + "_WatchdogStackTrace_0.log"))
                .find("----- START TRACE pid 0 -----"),
            std::string::npos);
  EXPECT_EQ(Lines("plan/quillmorUserAgent.launches")[0].substr(
                Lines("plan/quillmorUserAgent.launches")[0].find(' ')),
            " --wd --dns 2001:4860:4860::8888,2001:4860:4860::8844,8.8.8.8,8.8.4.4");
  // get pid, generation, level, account, mode 7, a path and nothing as
  // version, memory limit
  const std::vector<std::string> replies = {"8 0 " + std::to_string(pid_),
                                            "1 0 0",
                                            "2 0 0",
                                            "6 0 0",
                                            "3 10 0",
                                            "5 10 0",
                                            "5 10 0",
                                            "7 0 0"};
  EXPECT_EQ(Lines("plan/quillmorUserAgent.replies"), replies);
  EXPECT_TRUE(WaitFor("", "Available Free System RAM is only"));
  EXPECT_TRUE(WaitFor("", "acct42"));

  const int status = Finish(SIGTERM);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_FALSE(fs::exists(dir_.File("run/quillmorWD.pid")));
  EXPECT_EQ(Lines("plan/quillmorUserAgent.launches").size(), 1u);
  EXPECT_NE(Log().find("Termination signal received! exit..."), std::string::npos);
  EXPECT_EQ(Log().find("Changing PID"), std::string::npos);
}

TEST_F(WatchdogRoadsTest, FailuresRestartAllWithGrowingDelayThenSafeMode) {
  Start("hb fail\nhb fail\nhb fail\nhb fail\nbeat",
        "Normal1NumEvents=2\nNormal1DurationSec=60\nNormal1Result=1\n"
        "Normal2NumEvents=4\nNormal2DurationSec=60\nNormal2Result=2\n");
  ASSERT_TRUE(WaitFor("", "Switching operational mode 0 -> 1 after current mode cleanup", 40));
  ASSERT_TRUE(WaitFor("plan/quillmorUserAgent.launches", "--safe-mode"));
  const std::string log = Log();
  const size_t failed = log.find("Entity 'quillmorUserAgent' status is failed(2)");
  const size_t agentStop = log.find("quillmorUserAgent' exited", failed);
  const size_t execStop = log.find("quillmorSystemExec' exited", failed);
  EXPECT_LT(agentStop, execStop);
  EXPECT_LT(execStop, log.find("Run cleanup script", failed));
  EXPECT_NE(log.find("resulted in sleeping 1 seconds"), std::string::npos);
  EXPECT_NE(log.find("resulted in sleeping 2 seconds"), std::string::npos);
  EXPECT_EQ(Lines("plan/quillmorSystemExec.launches").size(), 4u);
  EXPECT_EQ(Lines("plan/cleanup.log").size(), 4u);
  EXPECT_TRUE(WIFEXITED(Finish(SIGTERM)));
}

TEST_F(WatchdogRoadsTest, RequestedRestartSafeModeAndUpgradeUnderTheSamePid) {
  Start("hb cmd 4 500 wait\nhb cmd 3 1 wait\nhb cmd 3 1 text 5 9.9.9 cmd 4 0 wait");
  ASSERT_TRUE(WaitFor("run/quillmorWD.pid", PidFileText(pid_)));
  fs::create_directories(dir_.File("dl/9.9.9"));
  dir_.Write("dl/9.9.9/quillmor_control.sh",
             "#!/bin/sh\necho $$ $1 > " + dir_.File("plan/upgraded") + "\n");
  ASSERT_TRUE(WaitFor("plan/upgraded", std::to_string(pid_) + " start", 40));
  const int status = WaitForExit(5);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  const std::string log = Log();
  EXPECT_NE(log.find("Going to sleep for 500 msecs before stopping entities"), std::string::npos);
  EXPECT_NE(log.find("New operation mode is the same as the current one"), std::string::npos);
  EXPECT_EQ(log.find("status is failed"), std::string::npos);
  EXPECT_EQ(Lines("plan/quillmorSystemExec.launches").size(), 2u);
  EXPECT_NE(Lines("plan/quillmorUserAgent.launches")[2].find("--wd --safe-mode --dns"),
            std::string::npos);
  EXPECT_TRUE(fs::exists(dir_.File("run/quillmorWD.pid")));
}

TEST_F(WatchdogRoadsTest, DotVersionsAreRefusedAndNAEndsInTheAbortedUpgrade) {
  Start("hb text 5 . text 5 .. exit 1\nhb text 5 N/A exit 1");
  EXPECT_EQ(WaitForExit(20), 0);
  EXPECT_EQ(Lines("plan/quillmorUserAgent.replies"),
            (std::vector<std::string>{"5 10 0", "5 10 0", "5 0 0"}));
  EXPECT_EQ(Count("Failed getting new version path after a version upgrade. Aborting"), 1u);
}

TEST_F(WatchdogRoadsTest, SigtermDuringAPolicyDelayIsPrompt) {
  Start("hb fail\nbeat",
        "Normal1NumEvents=1\nNormal1DurationSec=60\nNormal1Result=1\n"
        "DelayTimeIncreaseSec=3600\nMaxDelayPeriodSec=3600\n");
  ASSERT_TRUE(WaitFor("plan/cleanup.log", "cleanup"));
  const int status = Finish(SIGTERM);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_FALSE(fs::exists(dir_.File("run/quillmorWD.pid")));
}

TEST_F(WatchdogRoadsTest, HalfSentRequestIsAnsweredAndFaultsLeaveADump) {
  Start("half");
  ASSERT_TRUE(WaitFor("plan/quillmorUserAgent.replies", "3 "));
  for (int signal : {SIGSEGV, SIGFPE}) {
    if (signal == SIGFPE) Start("beat");
    ASSERT_TRUE(WaitFor("run/quillmorWD.pid", PidFileText(pid_)));
    const int status = Finish(signal);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;
    const std::string dump =
        ReadWholeFile(dir_.File("log/Quillmor_" + kVersion + "_WatchdogStackTrace_0.log"));
    EXPECT_NE(dump.find("signal:" + std::to_string(signal)), std::string::npos);
    EXPECT_NE(dump.find("Frame 1: "), std::string::npos);
    EXPECT_NE(dump.find("----- END TRACE -----"), std::string::npos);
  }
}

TEST_F(WatchdogRoadsTest, StartupFailuresEndWithTheirStatus) {
  // configuration, standard output expected, exit status
  const std::tuple<std::string, std::string, int> cases[] = {
      {"downloadDir=" + dir_.File("none"), "Watchdog failed to initialize. Aborting!!!", 0},
      {"libPath=" + dir_.File("none"), "Watchdog failed to initialize. Aborting!!!", 0},
      {"controlScriptPath=" + dir_.File("none/control.sh"), "Aborting!!!", 0},
      {"wdLogDir=" + dir_.File("none"), "Failed creating crash dump file", 255},
      {"cpuAffinityMask=4", "Failed setting CPU Affinity", 255},
  };
  for (const auto& [config, output, expected] : cases) {
    SCOPED_TRACE(config);
    Start("beat", config);
    const int status = WaitForExit(10);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == expected) << status;
    EXPECT_NE(ReadWholeFile(dir_.File("stdout")).find(output), std::string::npos);
  }
}

}  // namespace
