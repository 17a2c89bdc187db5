#include "common/TimeUtils.h"

#include <gtest/gtest.h>

#include <tuple>


namespace {

TEST(IntervalTest, BoundariesABackwardsClockNoWrapAndTruncatedDifferences) {
  const int64_t big = int64_t{1} << 40;
  // now, start, interval, passed; now before start means the clock went backwards
  const std::tuple<int64_t, int64_t, int32_t, bool> cases[] = {
      {1000, 2000, 5000, true}, {6999, 2000, 5000, false},        {7000, 2000, 5000, true},
      {2000, 2000, -5, true},   {big + 19999, big, 20000, false}, {big + 20000, big, 20000, true}};
  for (const auto& [now, start, interval, passed] : cases) {
    EXPECT_EQ(passed, HasIntervalPassedMSec(now, start, interval)) << now;
  }
  EXPECT_EQ(1200, DiffTimeMillisec({5, 100000000}, {3, 900000000}));
  EXPECT_EQ(1999, DiffTimeMillisec({5, 0}, {3, 500000}));
  EXPECT_EQ(2000, DiffTimeMillisec({5, 999999}, {3, 0}));
}

}  // namespace
