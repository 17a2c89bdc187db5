// The faults a router meets, each on the built quillmorWD with real children:
// the watchdog's answer as its rules give it, then no crash, every child
// settled again, no descriptor more than a healthy run holds, and no child
// but the two latest launches (none of them a zombie).
// A child ignoring SIGTERM (killed at round 50) is MonitoredProcessTest's,
// on the scaled clock.

#include <sys/mount.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <set>

#include "common/ProcessTree.h"
#include "ipc/UnixSocket.h"
#include "tests/watchdog/e2e/WatchdogRun.h"

namespace {

using namespace e2e;

// Whether the process has ended (gone, or a zombie nobody reaped yet).
bool Ended(pid_t pid) {
  pid_t parent = 0, group = 0;
  char state = 0;
  return !ReadProcessStat(pid, &parent, &group, &state) || state == 'Z';
}

class FaultMatrixTest : public WatchdogRun {
 protected:
  // The pid of a child's latest launch.
  pid_t LastLaunch(const std::string& role) const {
    const std::vector<std::string> launches = Lines("plan/" + role + ".launches");
    return launches.empty() ? -1 : std::atoi(launches.back().c_str());
  }
  // Waits until the agent has been launched `launches` times and both
  // children's latest launches are connected (their pid files written).
  bool Settled(size_t launches) const {
    for (auto end = Clock::now() + std::chrono::seconds(30); Clock::now() < end;
         std::this_thread::sleep_for(std::chrono::milliseconds(50))) {
      if (Lines("plan/quillmorUserAgent.launches").size() != launches) continue;
      bool connected = true;
      for (const char* role : {"quillmorUserAgent", "quillmorSystemExec"}) {
        connected &= ReadWholeFile(dir_.File(std::string("run/") + role + ".pid")) ==
                     std::to_string(LastLaunch(role)) + "\n";
      }
      if (connected) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        return true;
      }
    }
    ADD_FAILURE() << "the children did not settle after " << launches << " agent launches";
    return false;
  }
  size_t Descriptors() const {
    const fs::path fds = "/proc/" + std::to_string(pid_) + "/fd";
    return std::distance(fs::directory_iterator(fds), fs::directory_iterator());
  }
  // The watchdog's children, a zombie among them as its negated pid.
  std::set<pid_t> Children() const {
    std::set<pid_t> children;
    for (const auto& entry : fs::directory_iterator("/proc")) {
      const std::string stat = ReadWholeFile(entry.path() / "stat");
      char state = 0;
      pid_t pid = 0, ppid = 0;
      if (std::sscanf(stat.c_str(), "%d", &pid) == 1 && stat.rfind(')') != std::string::npos &&
          std::sscanf(stat.c_str() + stat.rfind(')') + 1, " %c %d", &state, &ppid) == 2 &&
          ppid == pid_) {
        children.insert(state == 'Z' ? -pid : pid);
      }
    }
    return children;
  }
};

struct Fault {
  const char* name;
  std::string agentPlan;
  std::function<void()> before;   // before the start
  std::function<void()> trigger;  // once all has settled
  std::string answer;             // of the watchdog, in its log or as "<file>:<text>"
  size_t launches;                // of the agent, once all has settled again
  std::string config{};           // extra configuration lines
  std::function<void()> check{};  // once the watchdog has ended
  std::string systemExecPlan = "beat";
};

TEST_F(FaultMatrixTest, EachFaultGetsItsAnswerAndLeavesNothingBehind) {
  Start("beat");
  ASSERT_TRUE(Settled(1));
  const size_t healthy = Descriptors();
  ASSERT_TRUE(WIFEXITED(Finish(SIGTERM)));

  auto signalAgent = [this](int signal) { kill(LastLaunch("quillmorUserAgent"), signal); };
  const std::string cleanup = ReadWholeFile(version_ + "/cleanup.sh");
  const std::string restart = "Restarting all entities!";
  const std::string dump = "log/Quillmor_" + kVersion + "_WatchdogStackTrace_0.log";
  // ---- The rows at the end: nothing a child does freezes the watchdog. ----
  exitSeconds_ = 2;
  const pid_t stranger = fork();
  if (stranger == 0) execl("/bin/sleep", "sleep", "600", static_cast<char*>(nullptr));
  auto oneHangUp = [&] {
    const size_t seen = Count("got a disconnection");
    std::this_thread::sleep_for(std::chrono::seconds(4));
    EXPECT_EQ(Count("got a disconnection"), seen);
  };
  auto killSystemExec = [&] { kill(LastLaunch("quillmorSystemExec"), SIGKILL); };
  const std::string clean = "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n";
  const Fault faults[] = {
      {"agent crash", "beat", nullptr, [&] { signalAgent(SIGKILL); },
       "status is unknown(5). " + restart, 2},
      {"agent hang", "beat", nullptr, [&] { signalAgent(SIGSTOP); }, "setting state to FAILED!", 2},
      {"failure notice", "hb fail\nbeat", nullptr, nullptr, "msg 'planned failure'", 2},
      {"garbage", "garbage", nullptr, nullptr, "Got invalid magic 0x12345678 instead of dead dude",
       1},
      {"oversized record", "big", nullptr, nullptr, "Got size 4096, larger than max 200", 1},
      {"hang-up mid-request", "hangup\nbeat", nullptr, nullptr, restart, 2},
      {"never connects", "never\nbeat", nullptr, nullptr,
       "quillmorUserAgent to connect to the IPC channel", 2},
      {"cleanup script missing", "hb fail\nbeat", [&] { fs::remove(version_ + "/cleanup.sh"); },
       nullptr, "Failed doing agent cleanup", 2},
      {"log directory full", "hb fail\nbeat",
       [&] {
         dir_.Write("dl/" + kVersion + "/cleanup.sh", cleanup);
         chmod((version_ + "/cleanup.sh").c_str(), 0755);
         ASSERT_EQ(mount("qwd-full", dir_.File("log").c_str(), "tmpfs", 0, "size=64k"), 0);
         std::ofstream fill(dir_.File("log/fill"));
         while (fill << std::string(4096, 'x') << std::flush) {
         }
       },
       nullptr, "plan/cleanup.log:cleanup", 2},
      // What a child, a setting, a path or the kernel could do to the watchdog
      // itself: each is bounded, named in the log, and supervision goes on.
      {"stop delay of 49 days, negative sleeps, a policy row of no events",
       "hb fail\nhb cmd 4 4294967295 wait", [&] { umount(dir_.File("log").c_str()); }, nullptr,
       "Going to sleep for 60000 msecs before stopping entities", 2,
       "Normal1NumEvents=0\nNormal2NumEvents=1\nDelayTimeIncreaseSec=-1\nMaxDelayPeriodSec=2\n",
       [&] {
         EXPECT_EQ(Count("'DelayTimeIncreaseSec' = -1 is negative, using its default 10"), 1u);
         EXPECT_EQ(Count("Policy at idx 1 for mode 0 with 1 events at 300 seconds was met!"), 1u);
       }},
      {"links and a directory at root's paths, a blank in downloadDir", "beat",
       [&] {
         dir_.Write("plan/victim", "precious");
         fs::remove(dir_.File(dump));
         fs::create_symlink(dir_.File("plan/victim"), dir_.File(dump));
         fs::create_symlink(dir_.File("plan/victim"), dir_.File("run/quillmorWD.pid"));
         fs::remove("/var/quillmorWatchdogUserAgent.socket");  // the stale socket
         fs::create_directories("/var/quillmorWatchdogUserAgent.socket/stale");
         fs::create_directories(dir_.File("dl x/1.2.3/keep"));
         fs::create_directory_symlink(version_, dir_.File("dl x/" + kVersion));
       },
       nullptr, "Found previous version dir '1.2.3', removing it", 1,
       "downloadDir=\"" + dir_.File("dl x") + "\"\n",
       [&] {
         EXPECT_EQ(ReadWholeFile(dir_.File("plan/victim")), "precious");
         EXPECT_FALSE(fs::exists(dir_.File("dl x/1.2.3")));
         EXPECT_EQ(ReadWholeFile(dir_.File("plan/cleanup.log")),
                   "cleanup\n");  // its quoted path ran
       }},
      {"log directory removed", "beat", nullptr,
       [&] {
         fs::remove_all(dir_.File("log"));
         signalAgent(SIGKILL);
       },
       "status is unknown(5). " + restart, 2, "",
       [&] { EXPECT_EQ(Count("Termination signal received! exit..."), 1u); }},
      {"account id forging a log field", "hb text 6 x\",\"level\":\"FATAL wait", nullptr, nullptr,
       "plan/quillmorUserAgent.replies:6 0 0", 1, "",
       [&] { EXPECT_EQ(Count("\"level\":\"FATAL"), 0u); }},
      {"no module list", "hb cmd 9 wait\nbeat",
       [&] {  // a list that cannot be opened, where the kernel has one
         const sockaddr_un at = UnixSocket::MakeAddress(dir_.File("plan/modules").c_str());
         bind(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0),
              reinterpret_cast<const sockaddr*>(&at), sizeof(at));
         mount(at.sun_path, "/proc/modules", nullptr, MS_BIND, nullptr);
       },
       nullptr, "Module 'nfmodule' is not loaded", 2, "", [] { umount("/proc/modules"); }},
      // ---- Nothing a child does freezes the watchdog, misdirects its signals
      // or outlives it (and SIGTERM ends everything within 2 s). ----
      {"replies never read", "flood 3000\nbeat", [&] { umount(dir_.File("log").c_str()); },
       killSystemExec, "quillmorSystemExec' status is unknown(5). " + restart, 2},
      {"stranger's pid", "hb pid " + std::to_string(stranger) + "\nbeat", nullptr, killSystemExec,
       "Refusing PID " + std::to_string(stranger), 2},
      {"pid -1", "hb pid -1\nbeat", nullptr, nullptr, "status is unknown(5). " + restart, 2},
      {"grandchild, SIGTERM ignored", "ignore-term spawn-grandchild beat", nullptr,
       [&] { signalAgent(SIGKILL); }, "status is unknown(5). " + restart, 2},
      {"hang-up", "beat", nullptr, oneHangUp, "got a disconnection", 1, "", nullptr, "hb close"},
  };
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.name);
    fs::remove_all(dir_.File("plan"));
    fs::create_directory(dir_.File("plan"));
    if (fault.before) fault.before();
    Start(fault.agentPlan, fault.config, fault.systemExecPlan);
    if (fault.trigger) {
      ASSERT_TRUE(Settled(1));
      fault.trigger();
    }
    const bool inFile = fault.answer.rfind("plan/", 0) == 0;
    const size_t colon = inFile ? fault.answer.find(':') : 0;
    ASSERT_TRUE(inFile ? WaitFor(fault.answer.substr(0, colon), fault.answer.substr(colon + 1))
                       : WaitFor("", fault.answer, 30));
    // A stopped agent would hold the stop to its SIGKILL round.
    signalAgent(SIGCONT);
    EXPECT_TRUE(Settled(fault.launches));
    EXPECT_EQ(waitpid(pid_, nullptr, WNOHANG), 0) << "the watchdog ended";
    EXPECT_EQ(Descriptors(), healthy);
    EXPECT_EQ(Children(),
              (std::set<pid_t>{LastLaunch("quillmorUserAgent"), LastLaunch("quillmorSystemExec")}));
    // Started clean: no signal ignored or blocked by inheritance.
    const std::string inherited =
        ReadWholeFile("/proc/" + std::to_string(LastLaunch("quillmorSystemExec")) + "/status");
    EXPECT_NE(inherited.find(clean), std::string::npos) << inherited;
    const int status = Finish(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    if (fault.check) fault.check();
    for (const char* file : {"quillmorUserAgent.launches", "quillmorSystemExec.launches",
                             "quillmorUserAgent.grandchildren"}) {
      for (const std::string& line : Lines(std::string("plan/") + file)) {
        EXPECT_TRUE(Ended(std::atoi(line.c_str()))) << line;
      }
    }
  }
  // A cleanup script starts clean; still running at SIGTERM, it is killed
  // with its children.
  fs::remove(dir_.File("plan/quillmorUserAgent.launches"));
  dir_.Write("dl/" + kVersion + "/cleanup.sh", "#!/bin/sh\ncd " + dir_.File("plan") +
                                                   "\ngrep Sig[BI] /proc/self/status > sigs\n"
                                                   "sleep 60 &\necho $! > sleeper\nwait\n");
  Start("hb fail\nbeat");
  ASSERT_TRUE(WaitFor("plan/sleeper", "\n"));
  EXPECT_EQ(ReadWholeFile(dir_.File("plan/sigs")), clean);
  EXPECT_EQ(Finish(SIGTERM), 0);
  EXPECT_TRUE(Ended(std::atoi(ReadWholeFile(dir_.File("plan/sleeper")).c_str())));
  EXPECT_FALSE(Ended(stranger));
  kill(stranger, SIGKILL);
}

TEST_F(FaultMatrixTest, MissingVersionDirectoryEndsTheStart) {
  fs::remove_all(version_);
  Start("beat");
  const int status = WaitForExit(10);
  EXPECT_TRUE(WIFEXITED(status)) << status;
  EXPECT_FALSE(fs::exists(dir_.File("plan/quillmorUserAgent.launches")));
}

}  // namespace
