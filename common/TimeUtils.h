#pragma once

// Clock readings and interval arithmetic. Wall time (the "Real" functions) is
// only for time stamps; every interval, time-out and window uses the monotonic
// clock. All readings go through the Clock seam.

#include <cstdint>
#include <ctime>

int GetCurrentRealTime(timespec* out);
int32_t GetCurrentRealTimeInSec();
int64_t GetCurrentRealTimeMsec();

int GetCurrentMonoTime(timespec* out);
// Monotonic, despite the name.
int32_t GetCurrentTimeInSec();
// Monotonic, despite the name.
int64_t GetCurrentTimeMsec();

// True when now is before start (the clock went backwards) or now >= start + interval.
bool HasIntervalPassedMSec(int64_t now, int64_t start, int32_t interval);
bool HasIntervalPassedSec(int32_t now, int32_t start, int32_t interval);

// Milliseconds from earlier to later, each division truncating.
int32_t DiffTimeMillisec(const timespec& later, const timespec& earlier);
int32_t DiffTimeToNowMillisec(const timespec& earlier);
// Rounded half up.
int32_t DiffTimeToNowSecRounded(const timespec& earlier);
// start + duration - now, in seconds; negative once passed.
int32_t SecondsLeft(int32_t start, int32_t duration);
// A monotonic seconds value spread uniformly over the last `spread` seconds.
int32_t GetRandomizedPastTimeSec(int32_t spread);

namespace SystemUtils {
// low + rand() % (high - low + 1); both bounds inclusive, high + 1 != low.
int32_t RandBetween(int32_t low, int32_t high);
}  // namespace SystemUtils
