#include "watchdog/policy/Threshold.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/FakeClock.h"

namespace {

class ThresholdTest : public ::testing::Test {
 protected:
  // One run: a start, `seconds` of running, a failure. Returns whether met.
  bool Run(Threshold& t, int seconds) {
    t.AddStartEvent();
    clock_.Advance(seconds * 1000LL);
    return t.AddFailureEvent();
  }

  FakeClock clock_;
};

TEST_F(ThresholdTest, RunsMeetTheThresholdOnlyWhileTheNewestStayBelowTheBudget) {
  struct Case {
    int32_t numEvents, numSeconds;
    std::vector<int> runs;
    std::string met;  // one '1' or '0' per run
  };
  const Case cases[] = {
      {10, 900, std::vector<int>(11, 60), "00000000011"},          // the newest nine total 540 s
      {10, 900, std::vector<int>(20, 100), std::string(20, '0')},  // nine runs reach 900 s
      {10, 900, std::vector<int>(10, 99), "0000000001"},
      {1, 5, {1, 3600, 0}, "111"},  // one event: every failure, whatever its duration
      {1, 0, {0, 0}, "00"},         // no budget: nothing ever counts
      {1, -5, {0, 0}, "00"},
      {2, 100, {90, -10}, "01"},       // a run ending before it began wraps to -10 s
      {3, 100, {200, 10, 10}, "001"},  // the walk goes back to the newest runs, not the oldest
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.numEvents) + "/" + std::to_string(c.numSeconds) + " " + c.met);
    std::unique_ptr<Threshold> t = Threshold::Create(c.numEvents, c.numSeconds);
    ASSERT_NE(nullptr, t);
    std::string met;
    for (int seconds : c.runs) met += Run(*t, seconds) ? '1' : '0';
    EXPECT_EQ(c.met, met);
  }
}

}  // namespace
