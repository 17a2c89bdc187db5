#include "agent/src/infra/stats/Threshold.h"

#include <gtest/gtest.h>

#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"

namespace {

class ThresholdTest : public ::testing::Test {
 protected:
  // One run: a start, `seconds` of running, a failure. Returns whether met.
  bool Run(Threshold& t, int seconds) {
    t.AddStartEvent();
    clock_.Advance(seconds * 1000LL);
    return t.AddFailureEvent();
  }
  // `runs` runs of `seconds` each; returns the answer of the last failure.
  bool Runs(Threshold& t, int runs, int seconds) {
    bool met = false;
    for (int i = 0; i < runs; ++i) met = Run(t, seconds);
    return met;
  }

  FakeClock clock_;
  LogCapture log_;
};

TEST_F(ThresholdTest, TenRunsMeetTenInNineHundredOnlyWhileTheNewestNineStayBelowIt) {
  std::unique_ptr<Threshold> quick = Threshold::Create(10, 900);
  std::unique_ptr<Threshold> slow = Threshold::Create(10, 900);
  std::unique_ptr<Threshold> edge = Threshold::Create(10, 900);
  ASSERT_TRUE(quick && slow && edge);
  EXPECT_FALSE(Runs(*quick, 9, 60));  // the ring is not full yet
  EXPECT_TRUE(Run(*quick, 60));       // the newest nine total 540 s
  EXPECT_TRUE(Run(*quick, 60));
  EXPECT_FALSE(Runs(*slow, 20, 100));  // the walk stops after nine runs, at 900 s
  EXPECT_TRUE(Runs(*edge, 10, 99));
}

TEST_F(ThresholdTest, OneEventIsMetByEveryFailureWhateverItsDuration) {
  std::unique_ptr<Threshold> t = Threshold::Create(1, 5);
  ASSERT_NE(nullptr, t);
  EXPECT_TRUE(Run(*t, 1));
  EXPECT_TRUE(Run(*t, 3600));
  EXPECT_TRUE(Run(*t, 0));
}

TEST_F(ThresholdTest, NoBudgetIsNeverMet) {
  for (int seconds : {0, -5}) {
    std::unique_ptr<Threshold> t = Threshold::Create(1, seconds);
    ASSERT_NE(nullptr, t);
    EXPECT_FALSE(Runs(*t, 5, 0)) << seconds;
  }
}

TEST_F(ThresholdTest, FailureWithoutAnyStartIsNotMetAlsoAfterReset) {
  std::unique_ptr<Threshold> t = Threshold::Create(3, 50);
  ASSERT_NE(nullptr, t);
  EXPECT_FALSE(t->AddFailureEvent());
  EXPECT_TRUE(Runs(*t, 3, 1));
  t->ResetEvents();
  EXPECT_FALSE(t->AddFailureEvent());
  EXPECT_FALSE(Runs(*t, 2, 1));
  EXPECT_TRUE(Run(*t, 1));
  EXPECT_EQ(3, t->GetNumberOfEvents());
  EXPECT_EQ(50, t->GetNumberOfSeconds());
}

TEST_F(ThresholdTest, FailureWithoutItsStartIsMeasuredFromAnEarlierTurn) {
  std::unique_ptr<Threshold> t = Threshold::Create(2, 100);
  ASSERT_NE(nullptr, t);
  EXPECT_FALSE(Run(*t, 10));  // slot 0
  EXPECT_TRUE(Run(*t, 10));   // slot 1
  clock_.Advance(200 * 1000);
  // Slot 0 keeps its start of 220 s ago: the newest run alone now uses up the budget.
  EXPECT_FALSE(t->AddFailureEvent());
}

TEST_F(ThresholdTest, DurationsAreUnsignedDifferencesAddedModuloTheWord) {
  std::unique_ptr<Threshold> t = Threshold::Create(2, 100);
  ASSERT_NE(nullptr, t);
  EXPECT_FALSE(Run(*t, 90));
  // A run that ends 10 s before it began wraps to -10 in the signed total,
  // so the 90 s run before it still fits in the budget.
  EXPECT_TRUE(Run(*t, -10));
}

TEST_F(ThresholdTest, EmptyRingIsRefused) {
  EXPECT_EQ(nullptr, Threshold::Create(0, 900));
  EXPECT_EQ(nullptr, Threshold::Create(-1, 900));
  EXPECT_EQ(2u, log_.Count(LoggerLevel::ERROR, "ASSERT FAILED: numEvents >= 1 \n"));
  for (const LogCapture::Line& line : log_.Lines()) {
    EXPECT_EQ(LOGGER_COMPONENT_INFRA_THRESHOLD, line.component);
  }
}

}  // namespace
