#include "watchdog/MonitoredProcess.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/support/FakeClock.h"
#include "tests/watchdog/entities/ProcessTestSupport.h"

namespace {

int g_handlerCalls[3];
void* g_handlerContext = &g_handlerCalls;

template <int N>
StatusCode CountingHandler(const void*, size_t, void*, size_t, size_t* replyLen, void* context) {
  ++g_handlerCalls[N];
  g_handlerContext = context;
  *replyLen = 0;
  return StatusCode::SUCCESS;
}

const std::string kOwnName = [] {
  char path[256] = {};
  const ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
  const std::string full(path, n > 0 ? static_cast<size_t>(n) : 0);
  return full.substr(full.rfind('/') + 1);
}();

TEST_F(MonitoredProcessTest, CreationRefusesANullBinaryOrLibPath) {
  EXPECT_EQ(CreateMonitoredProcess("/bin", nullptr, nullptr, "/lib", 1, false, false, nullptr, 0, 0,
                                   nullptr, 0, 0),
            nullptr);
  EXPECT_EQ(CreateMonitoredProcess("/bin", "x", nullptr, nullptr, 1, false, false, nullptr, 0, 0,
                                   nullptr, 0, 0),
            nullptr);
  EXPECT_EQ(log_.Count("Can't create monitored process object with a null binary"), 2u);
  EXPECT_FALSE(log_.Contains("Destroying"));
}

TEST_F(MonitoredProcessTest, CreationRefusesMoreHandlersThanCommandIds) {
  const IpcHandler handlers[10] = {};
  auto process = Child("connect", {}, 5000, handlers, 10);
  EXPECT_EQ(process, nullptr);
  EXPECT_TRUE(log_.Contains("Failed registering handler (command ID 10) for qwd_test_child\n"));
  EXPECT_FALSE(log_.Contains("Destroying"));
}

TEST_F(MonitoredProcessTest, CreatedEntityIsNotRunningAndDestructionIsLogged) {
  auto process = Child("connect");
  ASSERT_NE(process, nullptr);
  EXPECT_EQ(process->GetType(), MonitoredEntityType::PROCESS);
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::NOT_RUNNING);
  EXPECT_EQ(process->GetPid(), -1);
  EXPECT_STREQ(process->GetName(), kChildName);
  EXPECT_NE(process->GetIpcChannel(), nullptr);
  EXPECT_TRUE(log_.Contains(std::string("Created Monitored process object for process "
                                        "'qwd_test_child' at '") +
                            QWD_TEST_CHILD_DIR + "'\n"));
  process.reset();
  EXPECT_TRUE(log_.Contains("Destroying Monitored process object for process 'qwd_test_child'\n"));
}

TEST_F(MonitoredProcessTest, ProcessWithoutDirectoryIsNeverForked) {
  auto process = Watched("agent");
  const int children = CountOwnChildren();
  EXPECT_EQ(process->Start(), StatusCode::SUCCESS);
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::RUNNING);
  EXPECT_EQ(CountOwnChildren(), children);
  EXPECT_EQ(process->GetIpcChannel(), nullptr);
  EXPECT_FALSE(log_.Contains("communication channel"));
}

TEST_F(MonitoredProcessTest, StartLaunchesConnectsAndWritesThePidFile) {
  ScaledClock clock(1000);
  auto process = Child("heartbeat");
  ASSERT_EQ(process->Start(), StatusCode::SUCCESS);
  const int32_t pid = process->GetPid();
  EXPECT_GT(pid, 0);
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::RUNNING);
  EXPECT_TRUE(log_.Contains(std::string("Launched process 'qwd_test_child' at '") +
                            QWD_TEST_CHILD_DIR + "', pid " + std::to_string(pid) + "\n"));
  EXPECT_TRUE(log_.Contains("Established connection with qwd_test_child\n"));
  EXPECT_EQ(ReadWholeFile(PidFileOf(kChildName)), std::to_string(pid) + "\n");

  ASSERT_EQ(ServeOne(*process), StatusCode::SUCCESS);
  EXPECT_TRUE(
      log_.Contains("Got OK status notification from "
                    "'/var/quillmorWatchdogUserAgent.socket', PID " +
                    std::to_string(pid) + "\n"));
  process->CheckStatus();
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::RUNNING);
  EXPECT_TRUE(log_.Contains("Process 'qwd_test_child' pid " + std::to_string(pid) + " is OK!\n"));
  EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
}

// A watchdog that crashed leaves its socket file behind; binding over it
// would fail.
TEST_F(MonitoredProcessTest, StaleSocketFileIsReplaced) {
  ScaledClock clock(1000);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof(address.sun_path), "%s", kUserAgentSocketName);
  std::remove(kUserAgentSocketName);
  const int stale = socket(AF_UNIX, SOCK_SEQPACKET, 0);
  ASSERT_EQ(bind(stale, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  close(stale);

  auto process = Child("connect");
  EXPECT_EQ(process->Start(), StatusCode::SUCCESS);
  EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
}

TEST_F(MonitoredProcessTest, MissingBinaryFailsBeforeForking) {
  auto process = CreateMonitoredProcess("/nonexistent", "agent", nullptr, "", 20000, false, true,
                                        kUserAgentSocketName, 200, 4, nullptr, 0, 1000);
  const int children = CountOwnChildren();
  EXPECT_EQ(process->Start(), StatusCode::FAILURE);
  EXPECT_TRUE(
      log_.Contains("Problem with /nonexistent/agent, errno No such file or directory(2)\n"));
  EXPECT_EQ(CountOwnChildren(), children);
  EXPECT_EQ(process->GetPid(), -1);
}

TEST_F(MonitoredProcessTest, ExtraArgumentsBeyondFourteenAreDroppedAndTheEnvironmentIsKept) {
  ScaledClock clock(1000);
  setenv("QWD_CHILD_MARK", "inherited", 1);
  std::vector<std::string> extra;
  for (int i = 3; i <= 16; ++i) extra.push_back("a" + std::to_string(i));
  auto process = Child("args", extra);
  ASSERT_EQ(process->Start(), StatusCode::SUCCESS);
  ASSERT_EQ(ServeOne(*process), StatusCode::SUCCESS);
  // argv[0] and 14 of the 16 extra arguments: "args", the socket, a3 ... a14.
  EXPECT_TRUE(log_.Contains("Got failure status notification with msg '15 a14 inherited'\n"))
      << log_.Dump();
  EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
  unsetenv("QWD_CHILD_MARK");
}

TEST_F(MonitoredProcessTest, CommandsReachTheHandlerOfTheirNumber) {
  ScaledClock clock(1000);
  const IpcHandler handlers[] = {CountingHandler<1>, CountingHandler<2>};
  auto process = Child("command", {"2"}, 5000, handlers, 2);
  ASSERT_EQ(process->Start(), StatusCode::SUCCESS);
  ASSERT_EQ(ServeOne(*process), StatusCode::SUCCESS);
  EXPECT_EQ(g_handlerCalls[1], 0);
  EXPECT_EQ(g_handlerCalls[2], 1);
  EXPECT_EQ(g_handlerContext, nullptr);
  EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
}

TEST_F(MonitoredProcessTest, FailureNotificationFailsTheEntity) {
  ScaledClock clock(1000);
  auto process = Child("fail", {"disk full"});
  ASSERT_EQ(process->Start(), StatusCode::SUCCESS);
  ASSERT_EQ(ServeOne(*process), StatusCode::SUCCESS);
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::FAILED);
  EXPECT_TRUE(1u == log_.Count(LoggerLevel::INFO,
                               "Got failure status notification with msg 'disk full'\n"));
  EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
}

TEST_F(MonitoredProcessTest, HeartbeatNamingAForeignSocketIsRefused) {
  ScaledClock clock(1000);
  auto process = Child("foreign-socket", {"/var/other.socket"});
  ASSERT_EQ(process->Start(), StatusCode::SUCCESS);
  const int32_t pid = process->GetPid();
  ASSERT_EQ(ServeOne(*process), StatusCode::SUCCESS);
  EXPECT_TRUE(
      log_.Contains("The monitored process notify handler got a wrong socket name from "
                    "the caller ('/var/other.socket')\n"));
  EXPECT_FALSE(log_.Contains("Got update from process"));
  EXPECT_EQ(process->GetPid(), pid);
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::RUNNING);
  EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
}

TEST_F(MonitoredProcessTest, GarbageNotificationIsRefusedWithinItsBounds) {
  ScaledClock clock(1000);
  auto process = Child("garbage");
  ASSERT_EQ(process->Start(), StatusCode::SUCCESS);
  ASSERT_EQ(ServeOne(*process), StatusCode::SUCCESS);
  // The unterminated socket name is cut at its 64-byte field.
  EXPECT_TRUE(
      log_.Contains("wrong socket name from the caller ('" + std::string(63, '\xA5') + "')\n"));
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::RUNNING);
  EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
}

TEST_F(MonitoredProcessTest, NotifyHandlerWithoutAnEntityRefuses) {
  StatusNotification note{};
  size_t replyLen = 99;
  EXPECT_EQ(MonitoredProcessNotifyHandler(&note, sizeof(note), nullptr, 0, &replyLen, nullptr),
            StatusCode::INVALID_PARAM);
  EXPECT_EQ(replyLen, 0u);
  EXPECT_TRUE(log_.Contains("got an empty monitored process object parameter\n"));
}

TEST_F(MonitoredProcessTest, HeartbeatWithAnotherPidIsAdoptedAndWrittenDown) {
  ScaledClock clock(1000);
  auto process = Child("other-pid", {"4242"});
  ASSERT_EQ(process->Start(), StatusCode::SUCCESS);
  const int32_t child = process->GetPid();
  ASSERT_EQ(ServeOne(*process), StatusCode::SUCCESS);
  EXPECT_TRUE(log_.Contains("Changing PID for process 'qwd_test_child' from " +
                            std::to_string(child) + " to 4242\n"));
  EXPECT_EQ(process->GetPid(), 4242);
  EXPECT_EQ(ReadWholeFile(PidFileOf(kChildName)), "4242\n");
  // Back to the real child, so that the stop below signals no stranger.
  process->UpdatePid(child);
  EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
}

TEST_F(MonitoredProcessTest, SilenceBeyondTheLimitFailsTheEntity) {
  FakeClock clock;
  auto process = Watched(kOwnName.c_str());
  process->Start();
  process->UpdatePid(getpid());
  clock.Advance(19999);
  process->CheckStatus();
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::RUNNING);
  clock.Advance(1);
  process->CheckStatus();
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::FAILED);
  EXPECT_TRUE(log_.Contains("Process '" + kOwnName +
                            "' last seen before 20000 msecs (max allowed 20000 msecs), setting "
                            "state to FAILED!\n"));
}

TEST_F(MonitoredProcessTest, SilenceIsToleratedWhenNotChecked) {
  FakeClock clock;
  auto process = Watched(kOwnName.c_str(), false);
  process->Start();
  process->UpdatePid(getpid());
  clock.Advance(3600000);
  process->CheckStatus();
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::RUNNING);
}

TEST_F(MonitoredProcessTest, HeartbeatWithPidMinusOneDoesNotCountAsSeen) {
  FakeClock clock;
  auto process = Watched("agent");
  process->UpdatePid(1234);
  clock.Advance(5000);
  process->UpdatePid(-1);
  EXPECT_TRUE(log_.Contains("new PID -1, last update before 5000 msecs\n"));
  EXPECT_TRUE(log_.Contains("Changing PID for process 'agent' from 1234 to -1\n"));
  clock.Advance(3000);
  process->UpdatePid(1234);
  EXPECT_TRUE(log_.Contains("new PID 1234, last update before 8000 msecs\n"));
}

TEST_F(MonitoredProcessTest, ReusedPidIsUnknownButTheOkLineStays) {
  auto process = Watched("qwd_not_this_program");
  process->Start();
  process->UpdatePid(getpid());
  process->CheckStatus();
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::UNKNOWN);
  const auto lines = log_.Lines();
  size_t mismatch = lines.size();
  size_t ok = lines.size();
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].message.find("Process 'qwd_not_this_program' cmdline is '") == 0) mismatch = i;
    if (lines[i].message.find("is OK!") != std::string::npos) ok = i;
  }
  ASSERT_LT(mismatch, lines.size()) << log_.Dump();
  EXPECT_EQ(ok, mismatch + 1);
}

TEST_F(MonitoredProcessTest, CheckStatusWithoutALivePidIsUnknown) {
  auto process = Watched("agent");
  process->Start();
  process->CheckStatus();
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::UNKNOWN);

  process->SetStatus(MonitoredEntityStatus::RUNNING);
  process->UpdatePid(MakeDeadPid());
  process->CheckStatus();
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::UNKNOWN);
  EXPECT_TRUE(log_.Contains("Failed reading from process 'agent' command line file"));

  const pid_t zombie = MakeZombie();
  process->SetStatus(MonitoredEntityStatus::RUNNING);
  process->UpdatePid(zombie);
  process->CheckStatus();
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::UNKNOWN);
  waitpid(zombie, nullptr, 0);
}

TEST_F(MonitoredProcessTest, CheckStatusLeavesARestartAlone) {
  auto process = Watched("agent");
  process->SetStatus(MonitoredEntityStatus::RESTART);
  process->CheckStatus();
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::RESTART);
}

TEST_F(MonitoredProcessTest, ResourceCheckRecordsPeaksOnce) {
  auto process = Watched(kOwnName.c_str());
  process->UpdatePid(getpid());
  process->CheckResources();
  EXPECT_EQ(log_.Count("MEM MAX: Process " + kOwnName), 1u);
  EXPECT_EQ(log_.Count("FD MAX: Process " + kOwnName), 1u);
  process->CheckResources();
  EXPECT_EQ(log_.Count("MEM MAX: Process " + kOwnName), 1u);
}

}  // namespace
