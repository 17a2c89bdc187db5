#include "watchdog/policy/WatchdogThresholdsManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "watchdog/Config.h"

namespace {

// A policy result with the sleep that comes with it.
using Decision = std::pair<uint32_t, int32_t>;
constexpr Decision kNow{POLICY_RESULT_NONE, 0};
constexpr Decision kSafeMode{POLICY_RESULT_SAFE_MODE, 0};
constexpr Decision Delay(int32_t seconds) { return {POLICY_RESULT_DELAY, seconds}; }

class WatchdogThresholdsManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { Config::ResetToDefaults(); }
  void TearDown() override {
    wtm_.Teardown();
    Config::ResetToDefaults();
  }

  // One pass of the supervision loop: start, `seconds` of running, failure.
  Decision Run(int seconds) {
    wtm_.AddStartEvent();
    return Fail(seconds);
  }
  Decision Fail(int afterSeconds) {
    clock_.Advance(afterSeconds * 1000LL);
    int32_t sleep = -1;
    const uint32_t result = wtm_.AddFailureEvent(sleep);
    return {result, sleep};
  }
  // `count` runs of `seconds` each; the last decision.
  Decision Runs(int count, int seconds) {
    Decision last{};
    for (int i = 0; i < count; ++i) last = Run(seconds);
    return last;
  }

  FakeClock clock_;
  LogCapture log_;
  WatchdogThresholdsManager wtm_;
};

TEST_F(WatchdogThresholdsManagerTest, DelayGrowsToTheCapAndStartsAgainAfterHealthyRunning) {
  ASSERT_EQ(StatusCode::SUCCESS, wtm_.Init());
  // One long run and four quick ones: only the five-run policy is ever met.
  for (int violation = 1; violation <= 62; ++violation) {
    Run(1000);
    ASSERT_EQ(Delay(std::min(violation * 10, 600)), Runs(4, 10)) << violation;
  }
  wtm_.AddStartEvent();
  clock_.Advance(900 * 1000);
  wtm_.NotifyRunning();  // exactly the clean-up period: not yet
  // An earlier violation still delays a restart that met no policy.
  EXPECT_EQ(Delay(600), Fail(0));
  wtm_.AddStartEvent();
  clock_.Advance(901 * 1000);
  wtm_.NotifyRunning();
  EXPECT_EQ(kNow, Fail(0));
  EXPECT_EQ(Delay(10), Runs(4, 10));
}

TEST_F(WatchdogThresholdsManagerTest, SafeModeDelaysEveryFailureAndSameModeKeepsTheCounter) {
  ASSERT_EQ(StatusCode::SUCCESS, wtm_.Init());
  Runs(5, 10);
  wtm_.SwitchMode(OPERATIONAL_MODE_NORMAL);
  EXPECT_EQ(Delay(20), Run(10));
  wtm_.SwitchMode(OPERATIONAL_MODE_SAFE);
  EXPECT_EQ(Delay(10), Run(3600));
  EXPECT_EQ(Delay(20), Run(1));
  // Back in normal mode the rings start empty: four quick runs meet nothing.
  wtm_.SwitchMode(OPERATIONAL_MODE_NORMAL);
  EXPECT_EQ(kNow, Runs(4, 10));
}

TEST_F(WatchdogThresholdsManagerTest, OddSettingsDecideTheLastOfTenSecondRuns) {
  struct Case {
    uint32_t key;
    int32_t value;
    int runs;
    Decision decision;
  };
  const Case cases[] = {
      {CFG_NORMAL1_RESULT, 3, 10, {3, 0}},                // above safe mode wins, without sleep
      {CFG_MAX_DELAY_PERIOD_SEC, -1, 5, Delay(10)},       // no cap at all
      {CFG_DELAY_TIME_INCREASE_SEC, -10, 5, Delay(600)},  // a huge step, capped
      {CFG_NORMAL1_RESULT, 0, 6, kNow},                   // policy 1 alone is never walked
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    Config::ResetToDefaults();
    Config::SetIntValue(c.key, c.value);
    EXPECT_EQ(StatusCode::SUCCESS, wtm_.Init());
    EXPECT_EQ(c.decision, Runs(c.runs, 10));
    wtm_.Teardown();
  }
  EXPECT_EQ(1u, log_.Count("with 10 events at 900 seconds was met! changing result 0 -> 3\n"));
  // The disabled policy 0 is reported at every start and failure instead of dereferenced.
  EXPECT_EQ(12u, log_.Count(LoggerLevel::ERROR,
                            "ASSERT FAILED: NULL != policies[g_currentMode][i].threshold \n"));
}

TEST_F(WatchdogThresholdsManagerTest, SafeModeResultStopsTheWalkBeforeLaterPolicies) {
  Config::SetIntValue(CFG_NORMAL1_NUM_EVENTS, 2);
  Config::SetIntValue(CFG_NORMAL1_DURATION_SEC, 15);
  Config::SetIntValue(CFG_NORMAL2_NUM_EVENTS, 3);
  Config::SetIntValue(CFG_NORMAL2_DURATION_SEC, 1000);
  ASSERT_EQ(StatusCode::SUCCESS, wtm_.Init());
  EXPECT_EQ(kSafeMode, Runs(2, 10));
  // The second policy never saw that failure, so it has counted two runs, not three.
  EXPECT_EQ(kNow, Run(20));
}

}  // namespace
