// What the watchdog's own roads (tests/watchdog/e2e) cannot reach in time or
// at all: the SIGKILL escalation on scaled clocks, notifications from a
// child that lies, and pids a stop must never signal. The 20-second
// heartbeat limit is the fault matrix's (a stopped agent).

#include "watchdog/entities/MonitoredProcess.h"

#include <gtest/gtest.h>
#include <linux/sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/ProcRoot.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "watchdog/Config.h"

namespace {

using Status = MonitoredEntityStatus;

constexpr char kChild[] = "qwd_test_child";
const std::string kDir = QWD_TEST_CHILD_DIR;

// A child that exited at once and was never reaped: its /proc entry stays
// and every signal to it succeeds.
pid_t Zombie() {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  siginfo_t info{};
  waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
  return pid;
}

[[noreturn]] void Idle() {
  for (;;) pause();
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

class MonitoredProcessTest : public ::testing::Test {
 protected:
  void SetUp() override { Config::SetStrValue(CFG_PID_FILE_PATH, (pidDir_.path() + "/").c_str()); }
  void TearDown() override { Config::ResetToDefaults(); }

  // qwd_test_child playing this plan line (see TestChild.cc), with the
  // watchdog's own 20-second connect limit.
  std::unique_ptr<MonitoredProcess> Child(const std::string& plan) {
    setenv("QWD_CHILD_PLAN_DIR", plans_.path().c_str(), 1);
    plans_.Write(std::string(kChild) + ".plan", plan);
    return CreateMonitoredProcess(kDir.c_str(), kChild, nullptr, "/lib", 20000, false, true,
                                  kUserAgentSocketName, sizeof(StatusNotification), 4, nullptr, 0,
                                  20000);
  }
  // A process the watchdog does not launch, without a channel.
  static std::unique_ptr<MonitoredProcess> Watched(const char* name, bool checkLastSeen = true) {
    return CreateMonitoredProcess(nullptr, name, nullptr, "", 20000, false, checkLastSeen, nullptr,
                                  0, 0, nullptr, 0, 0);
  }

  LogCapture log_;
  TempDir pidDir_;
  TempDir plans_;
};

TEST_F(MonitoredProcessTest, NotificationsAreCheckedBeforeTheyAct) {
  ScaledClock clock(1000);
  // The socket file a crashed watchdog leaves behind must not stop the start.
  std::fclose(std::fopen(kUserAgentSocketName, "w"));
  const std::string self = std::to_string(getpid());
  // Plan, the line it causes, the status it leaves, the pid adopted (0: the
  // child's own).
  const struct {
    std::string plan;
    std::string line;
    Status status = Status::RUNNING;
    int32_t adopted = 0;
  } kCases[] = {
      {"fail", "failure status notification with msg 'planned failure'\n", Status::FAILED},
      {"sock /var/x.socket hb", "wrong socket name from the caller ('/var/x.socket')\n"},
      // The unterminated name is cut at its 64-byte field.
      {"noise", "wrong socket name from the caller ('" + std::string(63, '\xA5') + "')\n"},
      // Pids a stop must never signal (0 is the watchdog's process group);
      // they used to be adopted.
      {"pid 0", "Refusing PID 0 from process 'qwd_test_child'\n"},
      {"pid 1", "Refusing PID 1 from process 'qwd_test_child'\n"},
      {"pid " + self, "Refusing PID " + self + " from process"},
      {"pid 4242", "Refusing PID 4242 from process 'qwd_test_child': not started by the watchdog"},
  };
  for (const auto& [plan, line, status, adopted] : kCases) {
    SCOPED_TRACE(line);
    log_.Clear();
    auto process = Child(plan);
    ASSERT_EQ(process->Start(), StatusCode::SUCCESS);
    const int32_t child = process->GetPid();
    const std::string pidFile = pidDir_.File(std::string(kChild) + ".pid");
    EXPECT_EQ(ReadWholeFile(pidFile), std::to_string(child) + "\n");
    ASSERT_EQ(process->GetIpcChannel()->ServerWaitAndProcess(5000), StatusCode::SUCCESS);
    EXPECT_EQ(log_.Count(line), 1u) << log_.Dump();
    EXPECT_EQ(process->GetStatus(), status);
    EXPECT_EQ(process->GetPid(), adopted != 0 ? adopted : child);
    EXPECT_EQ(ReadWholeFile(pidFile), std::to_string(process->GetPid()) + "\n");
    // Back to the real child, so that the stop signals no stranger.
    process->UpdatePid(child);
    EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
    EXPECT_EQ(ReadWholeFile(pidFile), "");
  }
}

// A child that set SIGTERM aside dies of the SIGKILL of round 50. A zombie
// ends the stop at once; one whose state /proc does not show sits through the
// whole escalation.
TEST_F(MonitoredProcessTest, StopEscalatesToASigkillEveryFiftyRoundsUpToSixHundred) {
  {
    ScaledClock clock(1000);
    auto process = Child("ignore-term");
    ASSERT_EQ(process->Start(), StatusCode::SUCCESS);
    EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
    EXPECT_EQ(process->GetStatus(), Status::NOT_RUNNING);
    EXPECT_EQ(KillRounds(log_), std::vector<size_t>{50});
    EXPECT_TRUE(log_.Contains("didn't exit, probably killed or crashed\n"));
  }
  log_.Clear();
  const pid_t zombie = Zombie();
  auto process = Watched("agent");
  process->UpdatePid(zombie);
  {
    FakeClock clock;
    EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
  }
  process->UpdatePid(zombie);
  TempDir proc;
  mkdir(proc.File(std::to_string(zombie)).c_str(), 0755);
  SetProcRoot(proc.path().c_str());
  {
    ScaledClock clock(10000);
    EXPECT_EQ(process->Stop(), StatusCode::FAILURE);
    // The exit ends the grace at once; the rounds go by what /proc shows.
    EXPECT_EQ(clock.SleptMsec(), 600 * 1000);
  }
  EXPECT_EQ(process->GetStatus(), Status::FAILED);
  EXPECT_EQ(KillRounds(log_),
            (std::vector<size_t>{50, 100, 150, 200, 250, 300, 350, 400, 450, 500, 550, 600}));
  SetProcRoot(nullptr);
  EXPECT_EQ(waitpid(zombie, nullptr, WNOHANG), zombie);
}

// The pid of a reaped process taken again by a copy of the same program
// (a pid chosen through clone3, root only): the files held since the
// adoption still name the first process, so the second never passes for it.
TEST_F(MonitoredProcessTest, APidTakenAgainBySameProgramIsNotTheWatchedProcess) {
  const pid_t first = fork();
  if (first == 0) Idle();
  auto process = Watched("watchdog_process_test");
  ASSERT_EQ(process->UpdatePid(first), StatusCode::SUCCESS);
  process->SetStatus(Status::RUNNING);
  process->CheckStatus();
  EXPECT_EQ(process->GetStatus(), Status::RUNNING) << log_.Dump();
  kill(first, SIGKILL);
  waitpid(first, nullptr, 0);
  pid_t tid = first;
  clone_args args{};
  args.set_tid = reinterpret_cast<uintptr_t>(&tid);
  args.set_tid_size = 1;
  args.exit_signal = SIGCHLD;
  const long second = syscall(SYS_clone3, &args, sizeof(args));
  if (second == 0) Idle();
  if (second < 0) GTEST_SKIP() << "no pid of choice: " << std::strerror(errno);
  process->CheckStatus();
  EXPECT_EQ(process->GetStatus(), Status::UNKNOWN);
  EXPECT_EQ(log_.Count("Failed reading from process 'watchdog_process_test' command line file, "
                       "pid " +
                       std::to_string(first) + "\n"),
            1u);
  kill(second, SIGKILL);
  waitpid(second, nullptr, 0);
}

}  // namespace
