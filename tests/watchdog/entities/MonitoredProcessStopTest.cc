#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/support/FakeClock.h"
#include "tests/watchdog/entities/ProcessTestSupport.h"
#include "watchdog/MonitoredProcess.h"

namespace {

// Stop rounds counted by their "still running" lines at the moment of each
// SIGKILL line: the round number of every SIGKILL.
std::vector<size_t> KillRounds(const LogCapture& log) {
  std::vector<size_t> rounds;
  size_t stillRunning = 0;
  for (const auto& line : log.Lines()) {
    if (line.message.find("is still running") != std::string::npos) ++stillRunning;
    if (line.message.find("after previous attempt didn't succeed") != std::string::npos) {
      rounds.push_back(stillRunning);
    }
  }
  return rounds;
}

TEST_F(MonitoredProcessTest, ChildExitingOnSigtermIsReapedAndStopped) {
  ScaledClock clock(1000);
  auto process = Child("connect");
  ASSERT_EQ(process->Start(), StatusCode::SUCCESS);
  const int32_t pid = process->GetPid();
  const std::string pidText = std::to_string(pid);
  EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::NOT_RUNNING);
  EXPECT_EQ(process->GetPid(), -1);
  const std::string fullPath = std::string(QWD_TEST_CHILD_DIR) + "/qwd_test_child";
  EXPECT_TRUE(log_.Contains("Disconnecting and cleaning up the IPC channel of 'qwd_test_child'\n"));
  EXPECT_TRUE(log_.Contains("trying to stop process '" + fullPath + "', pid " + pidText + "\n"));
  EXPECT_TRUE(1u ==
              log_.Count(LoggerLevel::INFO, "process '" + fullPath + "' exited with ret code 0\n"));
  EXPECT_TRUE(log_.Contains("Process " + pidText + " is dead\n"));
  EXPECT_TRUE(log_.Contains("Stopped process 'qwd_test_child' (pid " + pidText + ") at '" +
                            QWD_TEST_CHILD_DIR + "' successfully\n"));
  EXPECT_FALSE(log_.Contains("Killing pid"));
  EXPECT_EQ(ReadWholeFile(PidFileOf(kChildName)), "");
  EXPECT_EQ(process->GetIpcChannel()->GetDescriptor(), -1);
}

TEST_F(MonitoredProcessTest, ChildIgnoringSigtermIsKilledAtRoundFifty) {
  ScaledClock clock(1000);
  auto process = Child("ignore-term");
  ASSERT_EQ(process->Start(), StatusCode::SUCCESS);
  // Start returns once the child connected, after it set SIGTERM aside.
  EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::NOT_RUNNING);
  EXPECT_EQ(KillRounds(log_), std::vector<size_t>{50});
  EXPECT_TRUE(log_.Contains("didn't exit, probably killed or crashed\n"));
  // 100 ms, then 50 rounds of a second before the SIGKILL.
  EXPECT_GE(clock.SleptMsec(), 100 + 50 * 1000);
}

// No process outlives SIGKILL, but a zombie comes close: every signal to it
// succeeds and its /proc entry stays until its parent reaps it. As the pid of
// a process the watchdog did not launch (reported by a heartbeat), it is never
// waited for, so it sits through the whole escalation.
TEST_F(MonitoredProcessTest, ProcessOutlivingEveryKillCostsSixHundredRoundsAndTwelveKills) {
  const pid_t zombie = MakeZombie();
  auto process = Watched("agent");
  process->Start();
  process->UpdatePid(zombie);
  const auto realStart = std::chrono::steady_clock::now();
  {
    ScaledClock clock(10000);
    EXPECT_EQ(process->Stop(), StatusCode::FAILURE);
    EXPECT_EQ(clock.SleptMsec(), 100 + 600 * 1000);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - realStart, std::chrono::seconds(1));
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::FAILED);
  EXPECT_EQ(process->GetPid(), -1);
  std::vector<size_t> expected;
  for (size_t round = 50; round <= 600; round += 50) expected.push_back(round);
  EXPECT_EQ(KillRounds(log_), expected);
  EXPECT_TRUE(
      log_.Contains("Process agent (pid " + std::to_string(zombie) +
                    ") remained alive 600000 milli-seconds after first trying to kill it\n"));
  EXPECT_FALSE(log_.Contains("waitpid"));
  EXPECT_FALSE(log_.Contains("ret code"));
  EXPECT_EQ(waitpid(zombie, nullptr, WNOHANG), zombie);
}

TEST_F(MonitoredProcessTest, StopOfAPidAlreadyDeadSucceedsAtOnce) {
  FakeClock clock;
  auto process = Watched("agent");
  process->UpdatePid(MakeDeadPid());
  EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::NOT_RUNNING);
  EXPECT_EQ(process->GetPid(), -1);
  EXPECT_TRUE(1u == log_.Count(LoggerLevel::WARN, "binary agent, but it is already dead\n"));
  EXPECT_EQ(clock.SleepCalls(), 0u);
}

TEST_F(MonitoredProcessTest, StopWithoutAPidIsRefusedAndLeavesTheStatus) {
  auto process = Watched("agent");
  process->SetStatus(MonitoredEntityStatus::FAILED);
  EXPECT_EQ(process->Stop(), StatusCode::INVALID_PARAM);
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::FAILED);
  EXPECT_TRUE(log_.Contains("Can't stop process '' with pid -1!\n"));
  // Pid 0 would signal the watchdog's own process group.
  process->UpdatePid(0);
  EXPECT_EQ(process->Stop(), StatusCode::INVALID_PARAM);
}

TEST_F(MonitoredProcessTest, ChildThatExitedByItselfIsReapedAtTheFirstRound) {
  ScaledClock clock(1000);
  auto process = Child("exit", {"7"});
  ASSERT_EQ(process->Start(), StatusCode::SUCCESS);
  AwaitExitWithoutReaping(process->GetPid());
  EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
  EXPECT_TRUE(log_.Contains("exited with ret code 7\n"));
  EXPECT_FALSE(log_.Contains("Killing pid"));
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::NOT_RUNNING);
}

TEST_F(MonitoredProcessTest, ChildDyingBeforeConnectingFailsTheStartAndIsReapedByStop) {
  ScaledClock clock(1000);
  const int children = CountOwnChildren();
  auto process = Child("die", {}, 300);
  EXPECT_EQ(process->Start(), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains(
      "Failed waiting for the process qwd_test_child to connect to the IPC channel\n"));
  // Kept as launched, so that the stop below cleans up after it.
  EXPECT_EQ(process->GetStatus(), MonitoredEntityStatus::RUNNING);
  EXPECT_GT(process->GetPid(), 0);
  EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
  EXPECT_TRUE(log_.Contains("exited with ret code 1\n"));
  EXPECT_EQ(CountOwnChildren(), children);
}

TEST_F(MonitoredProcessTest, ChildThatNeverConnectsIsStoppedAfterTheFailedStart) {
  ScaledClock clock(1000);
  auto process = Child("never-connect", {}, 300);
  EXPECT_EQ(process->Start(), StatusCode::FAILURE);
  EXPECT_EQ(process->Stop(), StatusCode::SUCCESS);
  EXPECT_TRUE(log_.Contains("exited with ret code 0\n"));
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
