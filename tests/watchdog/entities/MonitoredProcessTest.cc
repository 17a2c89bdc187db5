#include "watchdog/MonitoredProcess.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "watchdog/Config.h"

namespace {

using Status = MonitoredEntityStatus;

constexpr char kChild[] = "qwd_test_child";
const std::string kDir = QWD_TEST_CHILD_DIR;
const std::string kPath = kDir + "/" + kChild;
// What this test program's own cmdline contains.
const std::string kSelf = program_invocation_short_name;

int CountOwnDescriptors() {
  DIR* dir = opendir("/proc/self/fd");
  int count = -3;  // ".", ".." and the listing's own descriptor
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

// Live or zombie children of the test process.
int CountOwnChildren() {
  const std::string pids =
      ReadWholeFile("/proc/self/task/" + std::to_string(getpid()) + "/children");
  return static_cast<int>(std::count(pids.begin(), pids.end(), ' '));
}

// Blocks until the child has exited, without reaping it.
void AwaitExit(pid_t pid) {
  siginfo_t info{};
  waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
}

// A child that exits at once: a zombie (its /proc entry stays and every
// signal to it succeeds) or, reaped, a dead pid.
pid_t ExitedChild(bool reap) {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  AwaitExit(pid);
  if (reap) waitpid(pid, nullptr, 0);
  return pid;
}

// The round of each SIGKILL: the "still running" lines logged before it.
std::vector<size_t> KillRounds(const LogCapture& log) {
  std::vector<size_t> rounds;
  size_t stillRunning = 0;
  for (const auto& line : log.Lines()) {
    if (line.message.find("is still running") != std::string::npos) ++stillRunning;
    if (line.message.find("didn't succeed") != std::string::npos) rounds.push_back(stillRunning);
  }
  return rounds;
}

// A forked copy of this program waiting to be killed: a live pid whose
// cmdline names kSelf (heartbeats may not name the watchdog's own pid).
struct Twin {
  Twin() {
    while (pid == 0) pause();
  }
  ~Twin() {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  const pid_t pid = fork();
};

int g_handlerCalls[3];
void* g_handlerContext = &g_handlerCalls;

template <int N>
StatusCode CountingHandler(const void*, size_t, void*, size_t, size_t* replyLen, void* context) {
  ++g_handlerCalls[N];
  g_handlerContext = context;
  *replyLen = 0;
  return StatusCode::SUCCESS;
}

class MonitoredProcessTest : public ::testing::Test {
 protected:
  void SetUp() override { Config::SetStrValue(CFG_PID_FILE_PATH, (pidDir_.path() + "/").c_str()); }
  void TearDown() override { Config::ResetToDefaults(); }

  // qwd_test_child run as "<mode> <user agent socket> <extra>...", serving
  // handlers_.
  std::unique_ptr<MonitoredProcess> Child(const std::string& mode,
                                          const std::vector<std::string>& extra = {},
                                          uint32_t connectTimeoutMsec = 5000) {
    argStrings_ = {mode, kUserAgentSocketName};
    argStrings_.insert(argStrings_.end(), extra.begin(), extra.end());
    args_.clear();
    for (const std::string& arg : argStrings_) args_.push_back(arg.c_str());
    args_.push_back(nullptr);
    return CreateMonitoredProcess(kDir.c_str(), kChild, args_.data(), "/lib", 20000, false, true,
                                  kUserAgentSocketName, sizeof(StatusNotification), 4,
                                  handlers_.data(), static_cast<int32_t>(handlers_.size()),
                                  connectTimeoutMsec);
  }
  // A started child whose first request has been served.
  std::unique_ptr<MonitoredProcess> Served(const std::string& mode,
                                           const std::vector<std::string>& extra = {}) {
    auto process = Child(mode, extra);
    EXPECT_EQ(process->Start(), StatusCode::SUCCESS);
    EXPECT_EQ(process->GetIpcChannel()->ServerWaitAndProcess(5000), StatusCode::SUCCESS);
    return process;
  }
  // A process the watchdog does not launch, without a channel.
  static std::unique_ptr<MonitoredProcess> Watched(const char* name, bool checkLastSeen = true) {
    return CreateMonitoredProcess(nullptr, name, nullptr, "", 20000, false, checkLastSeen, nullptr,
                                  0, 0, nullptr, 0, 0);
  }
  std::string PidFile() const { return ReadWholeFile(pidDir_.File(std::string(kChild) + ".pid")); }
  void ExpectLogged(const std::vector<std::string>& lines) const {
    for (const std::string& line : lines) EXPECT_TRUE(log_.Contains(line)) << line << log_.Dump();
  }

  LogCapture log_;
  TempDir pidDir_;
  std::vector<IpcHandler> handlers_;
  // The child's arguments; they outlive the entity.
  std::vector<std::string> argStrings_;
  std::vector<const char*> args_;
};

TEST_F(MonitoredProcessTest, CreationRefusesNullNamesAndSurplusHandlers) {
  for (const auto& [binary, lib] :
       {std::pair<const char*, const char*>{nullptr, "/lib"}, {"x", nullptr}}) {
    EXPECT_EQ(CreateMonitoredProcess("/bin", binary, nullptr, lib, 1, false, false, nullptr, 0, 0,
                                     nullptr, 0, 0),
              nullptr);
  }
  EXPECT_EQ(log_.Count("Can't create monitored process object with a null binary"), 2u);
  handlers_.resize(10);
  EXPECT_EQ(Child("connect"), nullptr);
  ExpectLogged({"Failed registering handler (command ID 10) for qwd_test_child\n"});
  EXPECT_FALSE(log_.Contains("Destroying"));
}

TEST_F(MonitoredProcessTest, ChildIsLaunchedHeardCheckedAndStoppedOnSigterm) {
  ScaledClock clock(1000);
  // The socket file a crashed watchdog leaves behind must not stop the start.
  std::fclose(std::fopen(kUserAgentSocketName, "w"));
  auto process = Served("heartbeat");
  EXPECT_EQ(process->GetType(), MonitoredEntityType::PROCESS);
  const std::string pid = std::to_string(process->GetPid());
  EXPECT_EQ(PidFile(), pid + "\n");
  process->CheckStatus();
  EXPECT_EQ(process->GetStatus(), Status::RUNNING);
  EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
  EXPECT_EQ(process->GetStatus(), Status::NOT_RUNNING);
  EXPECT_EQ(process->GetPid(), -1);
  EXPECT_EQ(PidFile(), "");
  EXPECT_EQ(process->GetIpcChannel()->GetDescriptor(), -1);
  process.reset();
  ExpectLogged(
      {"Created Monitored process object for process 'qwd_test_child' at '" + kDir + "'\n",
       "Launched process 'qwd_test_child' at '" + kDir + "', pid " + pid + "\n",
       "Established connection with qwd_test_child\n",
       "Got OK status notification from '/var/quillmorWatchdogUserAgent.socket', PID " + pid + "\n",
       "Process 'qwd_test_child' pid " + pid + " is OK!\n",
       "Disconnecting and cleaning up the IPC channel of 'qwd_test_child'\n",
       "trying to stop process '" + kPath + "', pid " + pid + "\n", "Process " + pid + " is dead\n",
       "Stopped process 'qwd_test_child' (pid " + pid + ") at '" + kDir + "' successfully\n",
       "Destroying Monitored process object for process 'qwd_test_child'\n"});
  EXPECT_EQ(log_.Count(LoggerLevel::INFO, "process '" + kPath + "' exited with ret code 0\n"), 1u);
  EXPECT_FALSE(log_.Contains("Killing pid"));
}

TEST_F(MonitoredProcessTest, NotificationsAreCheckedBeforeTheyAct) {
  ScaledClock clock(1000);
  const std::string self = std::to_string(getpid());
  setenv("QWD_CHILD_MARK", "inherited", 1);
  std::vector<std::string> fifteen;
  for (int i = 3; i <= 15; ++i) fifteen.push_back('a' + std::to_string(i));
  // Mode, its arguments, the line it causes, the status it leaves.
  const std::tuple<const char*, std::vector<std::string>, std::string, Status> kCases[] = {
      {"fail",
       {"disk full"},
       "Got failure status notification with msg 'disk full'\n",
       Status::FAILED},
      {"foreign-socket",
       {"/var/x.socket"},
       "wrong socket name from the caller ('/var/x.socket')\n",
       Status::RUNNING},
      // The unterminated name is cut at its 64-byte field.
      {"garbage",
       {},
       "wrong socket name from the caller ('" + std::string(63, '\xA5') + "')\n",
       Status::RUNNING},
      // argc, last argument, environment: the 15th extra argument is dropped.
      {"args", fifteen, "Got failure status notification with msg '15 a14 inherited'\n",
       Status::FAILED},
      // Pids a stop must never signal; they used to be adopted.
      {"heartbeat", {"1"}, "Refusing PID 1 from process 'qwd_test_child'\n", Status::RUNNING},
      {"heartbeat", {self}, "Refusing PID " + self + " from process", Status::RUNNING},
  };
  for (const auto& [mode, extra, line, status] : kCases) {
    SCOPED_TRACE(line);
    log_.Clear();
    auto process = Child(mode, extra);
    ASSERT_EQ(process->Start(), StatusCode::SUCCESS);
    const int32_t child = process->GetPid();
    ASSERT_EQ(process->GetIpcChannel()->ServerWaitAndProcess(5000), StatusCode::SUCCESS);
    const LoggerLevel level = status == Status::FAILED ? LoggerLevel::INFO : LoggerLevel::ERROR;
    EXPECT_EQ(log_.Count(level, line), 1u) << log_.Dump();
    EXPECT_EQ(process->GetStatus(), status);
    EXPECT_EQ(process->GetPid(), child);
    EXPECT_FALSE(log_.Contains("Got update from process"));
    // A wrongly adopted pid must not keep the child from its stop.
    process->UpdatePid(child);
    EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
  }
  unsetenv("QWD_CHILD_MARK");
}

TEST_F(MonitoredProcessTest, HeartbeatWithAnotherPidIsAdoptedAndWrittenDown) {
  ScaledClock clock(1000);
  auto process = Child("heartbeat", {"4242"});
  ASSERT_EQ(process->Start(), StatusCode::SUCCESS);
  const int32_t child = process->GetPid();
  ASSERT_EQ(process->GetIpcChannel()->ServerWaitAndProcess(5000), StatusCode::SUCCESS);
  ExpectLogged(
      {"Changing PID for process 'qwd_test_child' from " + std::to_string(child) + " to 4242\n"});
  EXPECT_EQ(process->GetPid(), 4242);
  EXPECT_EQ(PidFile(), "4242\n");
  // Back to the real child, so that the stop signals no stranger.
  process->UpdatePid(child);
  EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
}

TEST_F(MonitoredProcessTest, CommandsReachTheHandlerOfTheirNumber) {
  ScaledClock clock(1000);
  handlers_ = {CountingHandler<1>, CountingHandler<2>};
  auto process = Served("command", {"2"});
  EXPECT_EQ(g_handlerCalls[1], 0);
  EXPECT_EQ(g_handlerCalls[2], 1);
  EXPECT_EQ(g_handlerContext, nullptr);
  EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);

  size_t replyLen = 99;
  EXPECT_EQ(MonitoredProcessNotifyHandler(nullptr, 0, nullptr, 0, &replyLen, nullptr),
            StatusCode::INVALID_PARAM);
  EXPECT_EQ(replyLen, 0u);
  ExpectLogged({"got an empty monitored process object parameter\n"});
}

TEST_F(MonitoredProcessTest, StartForksNothingWithoutADirectoryOrABinary) {
  const int children = CountOwnChildren();
  auto watched = Watched("agent");
  EXPECT_EQ(watched->Start(), StatusCode::SUCCESS);
  EXPECT_EQ(watched->GetStatus(), Status::RUNNING);
  EXPECT_EQ(watched->GetIpcChannel(), nullptr);
  EXPECT_FALSE(log_.Contains("communication channel"));
  auto missing = CreateMonitoredProcess("/nonexistent", "agent", nullptr, "", 20000, false, true,
                                        kUserAgentSocketName, 200, 4, nullptr, 0, 1000);
  EXPECT_EQ(missing->Start(), StatusCode::FAILURE);
  EXPECT_EQ(missing->GetPid(), -1);
  ExpectLogged({"Problem with /nonexistent/agent, errno No such file or directory(2)\n"});
  EXPECT_EQ(CountOwnChildren(), children);
}

// Only heartbeats naming a pid count as seen.
TEST_F(MonitoredProcessTest, SilenceBeyondTheLimitFailsTheEntityWhenChecked) {
  const Twin twin;
  const std::string pid = std::to_string(twin.pid);
  for (const bool checked : {true, false}) {
    FakeClock clock;
    auto process = Watched(kSelf.c_str(), checked);
    process->Start();
    process->UpdatePid(twin.pid);
    clock.Advance(5000);
    EXPECT_EQ(process->UpdatePid(-1), StatusCode::INVALID_PARAM);
    clock.Advance(3000);
    process->UpdatePid(twin.pid);
    clock.Advance(19999);
    process->CheckStatus();
    EXPECT_EQ(process->GetStatus(), Status::RUNNING);
    clock.Advance(1);
    process->CheckStatus();
    EXPECT_EQ(process->GetStatus(), checked ? Status::FAILED : Status::RUNNING);
  }
  ExpectLogged({"Refusing PID -1 from process '" + kSelf + "'\n",
                "new PID " + pid + ", last update before 8000 msecs\n"});
  EXPECT_EQ(log_.Count("Process '" + kSelf +
                       "' last seen before 20000 msecs (max allowed 20000 msecs), setting state "
                       "to FAILED!\n"),
            1u);
}

// A pid reused by another program is UNKNOWN too, yet its OK line follows.
TEST_F(MonitoredProcessTest, CheckStatusWithoutALivePidIsUnknownButLeavesARestart) {
  const pid_t zombie = ExitedChild(false);
  const Twin twin;
  for (const pid_t pid : {-1, ExitedChild(true), zombie, twin.pid}) {
    SCOPED_TRACE(pid);
    auto process = Watched("qwd_not_this_program");
    process->UpdatePid(pid);
    process->SetStatus(Status::RESTART);
    process->CheckStatus();
    EXPECT_EQ(process->GetStatus(), Status::RESTART);
    process->SetStatus(Status::RUNNING);
    process->CheckStatus();
    EXPECT_EQ(process->GetStatus(), Status::UNKNOWN);
  }
  EXPECT_EQ(log_.Count("Failed reading from process 'qwd_not_this_program' command line file"), 2u);
  EXPECT_NE(log_.Dump().find("Process 'qwd_not_this_program' cmdline is '" +
                             std::string(program_invocation_name) +
                             "'\nProcess 'qwd_not_this_program' pid " + std::to_string(twin.pid) +
                             " is OK!\n"),
            std::string::npos);
  waitpid(zombie, nullptr, 0);
}

TEST_F(MonitoredProcessTest, ResourceCheckRecordsPeaksOnce) {
  auto process = Watched(kSelf.c_str());
  process->UpdatePid(getppid());
  process->CheckResources();
  process->CheckResources();
  EXPECT_EQ(log_.Count("MEM MAX: Process " + kSelf), 1u);
  EXPECT_EQ(log_.Count("FD MAX: Process " + kSelf), 1u);
}

TEST_F(MonitoredProcessTest, StopOfAPidThatCantBeSignalledEndsAtOnce) {
  FakeClock clock;
  const pid_t dead = ExitedChild(true);
  // Pid 0 would signal the watchdog's own process group: it is never adopted.
  for (const pid_t pid : {-1, 0, dead}) {
    SCOPED_TRACE(pid);
    auto process = Watched("agent");
    const StatusCode result = pid == dead ? StatusCode::SUCCESS : StatusCode::INVALID_PARAM;
    EXPECT_EQ(process->UpdatePid(pid), result);
    process->SetStatus(Status::FAILED);
    EXPECT_EQ(process->Stop(), result);
    EXPECT_EQ(process->GetStatus(), pid == dead ? Status::NOT_RUNNING : Status::FAILED);
    EXPECT_EQ(process->GetPid(), -1);
  }
  EXPECT_EQ(log_.Count("Can't stop process '' with pid -1!\n"), 2u);
  ExpectLogged({"Tried killing process with pid " + std::to_string(dead) +
                ", binary agent, but it is already dead\n"});
  EXPECT_EQ(clock.SleepCalls(), 0u);
}

TEST_F(MonitoredProcessTest, ChildIgnoringSigtermIsKilledAtRoundFifty) {
  ScaledClock clock(1000);
  auto process = Child("ignore-term");
  // Start returns once the child connected, after it set SIGTERM aside.
  ASSERT_EQ(process->Start(), StatusCode::SUCCESS);
  EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
  EXPECT_EQ(process->GetStatus(), Status::NOT_RUNNING);
  EXPECT_EQ(KillRounds(log_), std::vector<size_t>{50});
  ExpectLogged({"didn't exit, probably killed or crashed\n"});
  EXPECT_GE(clock.SleptMsec(), 100 + 50 * 1000);
}

// A zombie outlives every SIGKILL; as the pid of a process the watchdog did
// not launch, it is never waited for and sits through the whole escalation.
TEST_F(MonitoredProcessTest, ProcessOutlivingEveryKillCostsSixHundredRoundsAndTwelveKills) {
  const pid_t zombie = ExitedChild(false);
  auto process = Watched("agent");
  process->UpdatePid(zombie);
  const auto realStart = std::chrono::steady_clock::now();
  {
    ScaledClock clock(10000);
    EXPECT_EQ(process->Stop(), StatusCode::FAILURE);
    EXPECT_EQ(clock.SleptMsec(), 100 + 600 * 1000);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - realStart, std::chrono::seconds(1));
  EXPECT_EQ(process->GetStatus(), Status::FAILED);
  EXPECT_EQ(process->GetPid(), -1);
  EXPECT_EQ(KillRounds(log_),
            (std::vector<size_t>{50, 100, 150, 200, 250, 300, 350, 400, 450, 500, 550, 600}));
  ExpectLogged({"Process agent (pid " + std::to_string(zombie) +
                ") remained alive 600000 milli-seconds after first trying to kill it\n"});
  EXPECT_FALSE(log_.Contains("waitpid"));
  EXPECT_EQ(waitpid(zombie, nullptr, WNOHANG), zombie);
}

// A failed start keeps the pid, so that the stop reaps what was launched.
TEST_F(MonitoredProcessTest, ChildThatExitsOrNeverConnectsIsReapedByStop) {
  ScaledClock clock(1000);
  const int children = CountOwnChildren();
  for (const std::string mode : {"exit", "die", "never-connect"}) {
    SCOPED_TRACE(mode);
    const bool connects = mode == "exit";
    auto process = Child(mode, {"7"}, connects ? 5000 : 100);
    EXPECT_EQ(process->Start(), connects ? StatusCode::SUCCESS : StatusCode::FAILURE);
    EXPECT_EQ(process->GetStatus(), Status::RUNNING);
    // One that never connects may die of SIGTERM or exit on it.
    if (mode != "never-connect") AwaitExit(process->GetPid());
    EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
  }
  EXPECT_EQ(log_.Count("Failed waiting for the process qwd_test_child to connect to the IPC "
                       "channel\n"),
            2u);
  ExpectLogged({"exited with ret code 7\n", "exited with ret code 1\n"});
  EXPECT_FALSE(log_.Contains("Killing pid"));
  EXPECT_EQ(CountOwnChildren(), children);
}

TEST_F(MonitoredProcessTest, ThousandStartStopCyclesLeakNothing) {
  ScaledClock clock(1000);
  auto process = Child("connect");
  const int descriptors = CountOwnDescriptors();
  const int children = CountOwnChildren();
  for (int cycle = 0; cycle < 1000; ++cycle) {
    ASSERT_EQ(process->Start(), StatusCode::SUCCESS) << "cycle " << cycle;
    ASSERT_EQ(process->Stop(), StatusCode::SUCCESS) << "cycle " << cycle;
    if (cycle % 100 == 0) log_.Clear();
  }
  EXPECT_EQ(CountOwnDescriptors(), descriptors);
  EXPECT_EQ(CountOwnChildren(), children);
}

}  // namespace
