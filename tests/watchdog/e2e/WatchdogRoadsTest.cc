// Whole roads through the built quillmorWD: a prepared installation, real
// children (qwd_test_child playing the agent and the system-exec process
// from plan files), the fixed sockets on a private /var, all in a private
// pid namespace. Each case follows one road from start to exit.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/TempDir.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
const std::string kVersion = "40.5.21.71902";

class WatchdogRoadsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* d : {"bin", "lib", "log", "run", "plan", "dl/1.2.3", "dl/tmp"}) {
      fs::create_directories(dir_.File(d));
    }
    fs::create_directories(version_);
    dir_.Write("dl/9.9", "");
    dir_.Write("bin/quillmorUserAgent", "a regular file in the link's way");
    for (const char* name : {"quillmorUserAgent", "quillmorSystemExec"}) {
      fs::copy_file(QWD_TEST_CHILD, version_ + "/" + name);
    }
    for (const char* name :
         {"quillmorKernelAgent", "quillmor_control.sh", "quillmor_teardown.sh", "libdemo.so.1"}) {
      dir_.Write("dl/" + kVersion + "/" + name, "");
    }
    dir_.Write("dl/" + kVersion + "/cleanup.sh",
               "#!/bin/sh\necho cleanup >> " + dir_.File("plan/cleanup.log") + "\n");
    chmod((version_ + "/cleanup.sh").c_str(), 0755);
  }
  void TearDown() override {
    if (pid_ > 0) Finish(SIGKILL);
  }

  // Config lines over the test installation's paths and short policies.
  std::string Config(const std::string& extra) const {
    std::ostringstream cfg;
    for (const char* name : {"quillmorUserAgent", "quillmorSystemExec", "quillmorKernelAgent"}) {
      const std::string key = std::string(name) == "quillmorUserAgent"    ? "agent"
                              : std::string(name) == "quillmorSystemExec" ? "systemExec"
                                                                          : "module";
      cfg << key << "SymLinkPath=" << dir_.File(std::string("bin/") + name) << "\n";
    }
    cfg << "controlScriptPath=" << dir_.File("bin/quillmor_control.sh")
        << "\nteardownScriptPath=" << dir_.File("bin/quillmor_teardown.sh")
        << "\nlibPath=" << dir_.File("lib") << "\ndownloadDir=" << dir_.File("dl")
        << "\nwdLogDir=" << dir_.File("log") << "\npidFilePath=" << dir_.File("run") << "/"
        << "\nDelayTimeIncreaseSec=1\nSleepOnCriticalErrorSec=1\nCriticalErrorRetries=2\n"
        << extra;
    return cfg.str();
  }

  // Starts the watchdog with the two children's plans (one line per launch).
  void Start(const std::string& agentPlan, const std::string& extraConfig = "",
             const std::string& systemExecPlan = "beat") {
    dir_.Write("plan/quillmorUserAgent.plan", agentPlan);
    dir_.Write("plan/quillmorSystemExec.plan", systemExecPlan);
    const std::string cfg = dir_.Write("wd.cfg", Config(extraConfig));
    setenv("QWD_CHILD_PLAN_DIR", dir_.File("plan").c_str(), 1);
    pid_ = fork();
    if (pid_ == 0) {
      freopen(dir_.File("stdout").c_str(), "w", stdout);
      execl(QWD_BINARY, "quillmorWD", "-f", cfg.c_str(), nullptr);
      _exit(127);
    }
  }

  // The watchdog's log so far, every file in rotation order.
  std::string Log() const {
    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(dir_.File("log"))) {
      if (entry.path().filename().string().find("WatchdogLogger") != std::string::npos) {
        files.push_back(entry.path());
      }
    }
    std::sort(files.begin(), files.end());
    std::string text;
    for (const std::string& file : files) text += ReadWholeFile(file);
    return text;
  }
  bool WaitFor(const std::string& file, const std::string& text, int seconds = 20) const {
    for (auto end = Clock::now() + std::chrono::seconds(seconds); Clock::now() < end;) {
      const std::string content = file.empty() ? Log() : ReadWholeFile(dir_.File(file));
      if (content.find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ADD_FAILURE() << "no '" << text << "' in " << (file.empty() ? "the log" : file);
    return false;
  }
  // The watchdog's wait status once it has ended by itself; killed (and a
  // failure) when it has not within the time.
  int WaitForExit(int seconds) {
    int status = 0;
    for (auto end = Clock::now() + std::chrono::seconds(seconds); Clock::now() < end;) {
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return status;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ADD_FAILURE() << "the watchdog did not end in " << seconds << " s";
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }
  // Sends the signal; the end must be prompt.
  int Finish(int signal) {
    kill(pid_, signal);
    return WaitForExit(3);
  }
  std::vector<std::string> Lines(const std::string& file) const {
    std::vector<std::string> lines;
    std::istringstream in(ReadWholeFile(dir_.File(file)));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
  size_t Count(const std::string& text) const {
    const std::string log = Log();
    size_t n = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
    return n;
  }

  TempDir dir_;
  const std::string version_ = dir_.File("dl/" + kVersion);
  pid_t pid_ = -1;
};

std::string PidFileText(pid_t pid) { return std::to_string(pid) + "\n"; }

TEST_F(WatchdogRoadsTest, StartPreparesTheInstallationAndSigtermEndsCleanly) {
  // A heartbeat naming the watchdog and a version request without data
  // (after one with data) must change nothing.
  Start(
      "hb pid parent cmd 8 cmd 1 cmd 2 228 0 text 6 acct42 cmd 3 7 text 5 ../x text 5 "
      "cmd 7 4294967295 0\nbeat");
  ASSERT_TRUE(WaitFor("plan/quillmorUserAgent.replies", "7 0"));
  EXPECT_EQ(fs::read_symlink(dir_.File("bin/quillmorUserAgent")), version_ + "/quillmorUserAgent");
  EXPECT_EQ(fs::read_symlink(dir_.File("lib/libdemo.so.1")), version_ + "/libdemo.so.1");
  struct stat info {};
  stat((version_ + "/quillmor_teardown.sh").c_str(), &info);
  EXPECT_EQ(info.st_mode & 07777, 0111u);
  EXPECT_FALSE(fs::exists(dir_.File("dl/1.2.3")));
  EXPECT_TRUE(fs::exists(dir_.File("dl/tmp")) && fs::exists(dir_.File("dl/9.9")));
  EXPECT_EQ(ReadWholeFile(dir_.File("run/quillmorWD.pid")), PidFileText(pid_));
  EXPECT_EQ(Count("Res Limits:"), 4u);
  EXPECT_EQ(Count("snprintf failed!"), 2u);
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
