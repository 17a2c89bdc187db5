#include "watchdog/WatchdogThresholdsManager.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "watchdog/Config.h"

namespace WTM = WatchdogThresholdsManager;

namespace {

class WatchdogThresholdsManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { Config::ResetToDefaults(); }
  void TearDown() override {
    WTM::Teardown();
    Config::ResetToDefaults();
  }

  // One pass of the supervision loop: start, `seconds` of running, failure.
  PolicyResult Run(int seconds) {
    WTM::AddStartEvent();
    clock_.Advance(seconds * 1000LL);
    sleep_ = -1;
    return WTM::AddFailureEvent(sleep_);
  }
  void SetPolicy(uint32_t firstKey, int32_t numEvents, int32_t durationSec, int32_t result) {
    Config::SetIntValue(firstKey, numEvents);
    Config::SetIntValue(firstKey + 1, durationSec);
    Config::SetIntValue(firstKey + 2, result);
  }

  FakeClock clock_;
  LogCapture log_;
  int32_t sleep_ = -1;
};

TEST_F(WatchdogThresholdsManagerTest, QuickRunsDelayMoreEachTimeUntilTenGiveSafeMode) {
  ASSERT_EQ(StatusCode::SUCCESS, WTM::Init());
  for (int i = 1; i <= 4; ++i) {
    EXPECT_EQ(POLICY_RESULT_NONE, Run(10)) << i;
    EXPECT_EQ(0, sleep_);
  }
  for (int i = 5; i <= 9; ++i) {
    EXPECT_EQ(POLICY_RESULT_DELAY, Run(10)) << i;
    EXPECT_EQ((i - 4) * 10, sleep_);
  }
  EXPECT_EQ(5u, log_.Count(LoggerLevel::INFO,
                           "Policy at idx 1 for mode 0 with 5 events at 300 seconds was met! "
                           "changing result 0 -> 1\n"));
  EXPECT_EQ(1u, log_.Count("Policy violation leads to increasing delay! concurrent violations "
                           "4 -> 5\n"));
  EXPECT_EQ(1u, log_.Count("Current or previous policy violation resulted in sleeping 50 "
                           "seconds\n"));

  EXPECT_EQ(POLICY_RESULT_SAFE_MODE, Run(10));
  EXPECT_EQ(0, sleep_);
  EXPECT_EQ(1u, log_.Count("Policy at idx 0 for mode 0 with 10 events at 900 seconds was met! "
                           "changing result 0 -> 2\n"));
}

TEST_F(WatchdogThresholdsManagerTest, DelayIsCappedAtTheMaximum) {
  ASSERT_EQ(StatusCode::SUCCESS, WTM::Init());
  // One long run and four quick ones: the quick-run policy is met once per
  // five runs while the ten-run policy never is.
  for (int violation = 1; violation <= 62; ++violation) {
    Run(1000);
    for (int quick = 0; quick < 3; ++quick) Run(10);
    ASSERT_EQ(POLICY_RESULT_DELAY, Run(10));
    ASSERT_EQ(std::min(violation * 10, 600), sleep_) << violation;
  }
  EXPECT_FALSE(log_.Contains("changing result 0 -> 2"));
}

TEST_F(WatchdogThresholdsManagerTest, DelayStartsAgainAfterHealthyRunning) {
  ASSERT_EQ(StatusCode::SUCCESS, WTM::Init());
  for (int i = 0; i < 6; ++i) Run(10);
  EXPECT_EQ(20, sleep_);

  WTM::AddStartEvent();
  clock_.Advance(900 * 1000);
  WTM::NotifyRunning();  // exactly the clean-up period: not yet
  EXPECT_EQ(POLICY_RESULT_DELAY, WTM::AddFailureEvent(sleep_));
  EXPECT_EQ(20, sleep_);  // an earlier violation still delays a restart that met no policy

  WTM::AddStartEvent();
  clock_.Advance(901 * 1000);
  WTM::NotifyRunning();
  EXPECT_EQ(1u, log_.Count(LoggerLevel::INFO, "Nullifying concurrent violations, was 2\n"));
  EXPECT_EQ(POLICY_RESULT_NONE, WTM::AddFailureEvent(sleep_));
  EXPECT_EQ(0, sleep_);
  for (int i = 0; i < 4; ++i) Run(10);
  EXPECT_EQ(10, sleep_);
}

TEST_F(WatchdogThresholdsManagerTest, SafeModeDelaysEveryFailureAndSameModeKeepsTheCounter) {
  ASSERT_EQ(StatusCode::SUCCESS, WTM::Init());
  for (int i = 0; i < 5; ++i) Run(10);
  EXPECT_EQ(10, sleep_);

  WTM::SwitchMode(OPERATIONAL_MODE_NORMAL);
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR, "Switching from mode 0 to itself?\n"));
  Run(10);
  EXPECT_EQ(20, sleep_);

  WTM::SwitchMode(OPERATIONAL_MODE_SAFE);
  EXPECT_EQ(1u, log_.Count(LoggerLevel::INFO, "Switching modes 0 -> 1\n"));
  EXPECT_EQ(POLICY_RESULT_DELAY, Run(3600));
  EXPECT_EQ(10, sleep_);
  EXPECT_EQ(POLICY_RESULT_DELAY, Run(1));
  EXPECT_EQ(20, sleep_);

  // Back in normal mode the rings start empty: four quick runs meet nothing.
  WTM::SwitchMode(OPERATIONAL_MODE_NORMAL);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(POLICY_RESULT_NONE, Run(10));
  WTM::SwitchMode(7);
  EXPECT_EQ(1u,
            log_.Count(LoggerLevel::ERROR, "ASSERT FAILED: newMode < OPERATIONAL_MODE_NUM_OF \n"));
  EXPECT_EQ(POLICY_RESULT_DELAY, Run(10));  // still normal mode, fifth quick run
}

TEST_F(WatchdogThresholdsManagerTest, SafeModeResultStopsTheWalkBeforeLaterPolicies) {
  SetPolicy(CFG_NORMAL1_NUM_EVENTS, 2, 15, POLICY_RESULT_SAFE_MODE);
  SetPolicy(CFG_NORMAL2_NUM_EVENTS, 3, 1000, POLICY_RESULT_DELAY);
  ASSERT_EQ(StatusCode::SUCCESS, WTM::Init());
  EXPECT_EQ(POLICY_RESULT_NONE, Run(10));
  EXPECT_EQ(POLICY_RESULT_SAFE_MODE, Run(10));
  // The second policy never saw that failure, so it has counted two runs, not three.
  EXPECT_EQ(POLICY_RESULT_NONE, Run(20));
  EXPECT_EQ(0, sleep_);
}

TEST_F(WatchdogThresholdsManagerTest, ResultAboveSafeModeWinsAndIsReturnedWithoutSleep) {
  Config::SetIntValue(CFG_NORMAL1_RESULT, 3);
  ASSERT_EQ(StatusCode::SUCCESS, WTM::Init());
  for (int i = 0; i < 9; ++i) Run(10);
  EXPECT_EQ(3u, static_cast<uint32_t>(Run(10)));
  EXPECT_EQ(0, sleep_);
  EXPECT_EQ(1u, log_.Count("with 10 events at 900 seconds was met! changing result 0 -> 3\n"));
}

TEST_F(WatchdogThresholdsManagerTest, DelaySettingsCompareAsUnsigned) {
  Config::SetIntValue(CFG_MAX_DELAY_PERIOD_SEC, -1);
  ASSERT_EQ(StatusCode::SUCCESS, WTM::Init());
  for (int i = 0; i < 5; ++i) Run(10);
  EXPECT_EQ(10, sleep_);  // a negative maximum is no cap at all
  WTM::Teardown();

  Config::ResetToDefaults();
  Config::SetIntValue(CFG_DELAY_TIME_INCREASE_SEC, -10);
  ASSERT_EQ(StatusCode::SUCCESS, WTM::Init());
  for (int i = 0; i < 5; ++i) Run(10);
  EXPECT_EQ(600, sleep_);  // a negative step is a huge one, capped
}

TEST_F(WatchdogThresholdsManagerTest, DisabledFirstPolicyIsReportedNotDereferenced) {
  Config::SetIntValue(CFG_NORMAL1_RESULT, 0);
  ASSERT_EQ(StatusCode::SUCCESS, WTM::Init());
  for (int i = 0; i < 6; ++i) EXPECT_EQ(POLICY_RESULT_NONE, Run(10));
  EXPECT_EQ(12u, log_.Count(LoggerLevel::ERROR,
                            "ASSERT FAILED: NULL != policies[g_currentMode][i].threshold \n"));
  EXPECT_FALSE(log_.Contains("was met"));
}

TEST_F(WatchdogThresholdsManagerTest, EnabledPolicyWithoutEventsFailsInit) {
  Config::SetIntValue(CFG_SAFE1_NUM_EVENTS, 0);
  EXPECT_EQ(StatusCode::OUT_OF_MEMORY, WTM::Init());
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR, "Failed to create watchdog threshold \n"));
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR, "ASSERT FAILED: numEvents >= 1 \n"));
  // No policy counts, so failures restart at once.
  EXPECT_EQ(POLICY_RESULT_NONE, Run(1));
  EXPECT_EQ(0, sleep_);
}

}  // namespace
