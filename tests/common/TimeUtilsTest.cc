#include "common/TimeUtils.h"

#include <gtest/gtest.h>

#include "common/Clock.h"
#include "tests/support/FakeClock.h"

namespace {

TEST(IntervalTest, MillisecondBoundariesAndABackwardsClock) {
  EXPECT_TRUE(HasIntervalPassedMSec(1000, 2000, 5000)) << "now before start counts as passed";
  EXPECT_FALSE(HasIntervalPassedMSec(6999, 2000, 5000));
  EXPECT_TRUE(HasIntervalPassedMSec(7000, 2000, 5000));
  EXPECT_TRUE(HasIntervalPassedMSec(2000, 2000, 0));
  EXPECT_TRUE(HasIntervalPassedMSec(2000, 2000, -5)) << "negative intervals are sign-extended";
}

TEST(IntervalTest, LargeMillisecondPointsDoNotWrap) {
  const int64_t start = (int64_t{1} << 40);
  EXPECT_FALSE(HasIntervalPassedMSec(start + 19999, start, 20000));
  EXPECT_TRUE(HasIntervalPassedMSec(start + 20000, start, 20000));
}

TEST(IntervalTest, SecondBoundaries) {
  EXPECT_TRUE(HasIntervalPassedSec(1, 2, 5));
  EXPECT_FALSE(HasIntervalPassedSec(6, 2, 5));
  EXPECT_TRUE(HasIntervalPassedSec(7, 2, 5));
  EXPECT_FALSE(HasIntervalPassedSec(INT32_MAX - 1, INT32_MAX - 2, 5))
      << "no overflow of start + interval";
}

TEST(DiffTimeTest, NanosecondBorrow) {
  EXPECT_EQ(1200, DiffTimeMillisec({5, 100000000}, {3, 900000000}));
  EXPECT_EQ(0, DiffTimeMillisec({5, 0}, {5, 0}));
  EXPECT_EQ(2000, DiffTimeMillisec({5, 0}, {3, 0}));
  EXPECT_EQ(1999, DiffTimeMillisec({5, 0}, {3, 500000}));
  EXPECT_EQ(2000, DiffTimeMillisec({5, 999999}, {3, 0})) << "divisions truncate";
}

TEST(DiffTimeTest, ToNowRoundsHalfUp) {
  FakeClock clock(50000);
  timespec start{};
  GetCurrentMonoTime(&start);
  clock.Advance(1499);
  EXPECT_EQ(1499, DiffTimeToNowMillisec(start));
  EXPECT_EQ(1, DiffTimeToNowSecRounded(start));
  clock.Advance(1);
  EXPECT_EQ(2, DiffTimeToNowSecRounded(start));
}

TEST(ClockTest, MonotonicReadingsFollowTheInstalledClock) {
  FakeClock clock(123456);
  EXPECT_EQ(123456, GetCurrentTimeMsec());
  EXPECT_EQ(123, GetCurrentTimeInSec());
  SleepSec(3600);
  EXPECT_EQ(123456 + 3600000, GetCurrentTimeMsec()) << "a fake sleep advances time at once";
  EXPECT_EQ(3600000, clock.SleptMsec());
  EXPECT_EQ(3723, GetCurrentTimeInSec());
  EXPECT_EQ(7, SecondsLeft(3700, 30));
  EXPECT_EQ(-1, SecondsLeft(3712, 10));
}

TEST(ClockTest, WallClockIsNotTheMonotonicOne) {
  FakeClock clock(1000);
  EXPECT_GT(GetCurrentRealTimeInSec(), 1600000000) << "stamps keep the real wall clock";
  EXPECT_GT(GetCurrentRealTimeMsec(), int64_t{1600000000} * 1000);
}

TEST(ClockTest, RealClockIsBackAfterTheFakeGoes) {
  {
    FakeClock clock(5);
    EXPECT_EQ(5, GetCurrentTimeMsec());
  }
  timespec real{};
  clock_gettime(CLOCK_MONOTONIC, &real);
  EXPECT_NEAR(static_cast<double>(real.tv_sec), GetCurrentTimeInSec(), 1.0);
}

TEST(RandomTest, BoundsAreInclusive) {
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(3, SystemUtils::RandBetween(3, 3));
    const int32_t value = SystemUtils::RandBetween(-2, 2);
    EXPECT_GE(value, -2);
    EXPECT_LE(value, 2);
  }
}

TEST(RandomTest, RandomizedPastTimeStaysInTheWindow) {
  FakeClock clock(100000);
  for (int i = 0; i < 100; ++i) {
    const int32_t t = GetRandomizedPastTimeSec(30);
    EXPECT_GE(t, 70);
    EXPECT_LE(t, 100);
  }
}

}  // namespace
