#include "common/TimeUtils.h"

#include <cstdlib>

#include "common/Clock.h"

int GetCurrentRealTime(timespec* out) { return GetClock().GetTime(CLOCK_REALTIME, out); }

int32_t GetCurrentRealTimeInSec() {
  timespec now{};
  GetCurrentRealTime(&now);
  return static_cast<int32_t>(now.tv_sec);
}

int64_t GetCurrentRealTimeMsec() {
  timespec now{};
  GetCurrentRealTime(&now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

int GetCurrentMonoTime(timespec* out) { return GetClock().GetTime(CLOCK_MONOTONIC, out); }

int32_t GetCurrentTimeInSec() {
  timespec now{};
  GetCurrentMonoTime(&now);
  return static_cast<int32_t>(now.tv_sec);
}

int64_t GetCurrentTimeMsec() {
  timespec now{};
  GetCurrentMonoTime(&now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool HasIntervalPassedMSec(int64_t now, int64_t start, int32_t interval) {
  if (now < start) return true;
  return now >= start + static_cast<int64_t>(interval);
}

bool HasIntervalPassedSec(int32_t now, int32_t start, int32_t interval) {
  if (now < start) return true;
  return static_cast<int64_t>(now) >= static_cast<int64_t>(start) + interval;
}

int32_t DiffTimeMillisec(const timespec& later, const timespec& earlier) {
  const int64_t seconds = static_cast<int64_t>(later.tv_sec) - earlier.tv_sec;
  if (later.tv_nsec > earlier.tv_nsec) {
    return static_cast<int32_t>(seconds * 1000 + (later.tv_nsec - earlier.tv_nsec) / 1000000);
  }
  return static_cast<int32_t>(seconds * 1000 - 1000 +
                              (later.tv_nsec + 1000000000L - earlier.tv_nsec) / 1000000);
}

int32_t DiffTimeToNowMillisec(const timespec& earlier) {
  timespec now{};
  GetCurrentMonoTime(&now);
  return DiffTimeMillisec(now, earlier);
}

int32_t DiffTimeToNowSecRounded(const timespec& earlier) {
  const int32_t msec = DiffTimeToNowMillisec(earlier);
  return msec / 1000 + (msec % 1000 >= 500 ? 1 : 0);
}

int32_t SecondsLeft(int32_t start, int32_t duration) {
  return start + duration - GetCurrentTimeInSec();
}

int32_t GetRandomizedPastTimeSec(int32_t spread) {
  return GetCurrentTimeInSec() - spread + SystemUtils::RandBetween(0, spread);
}

namespace SystemUtils {

int32_t RandBetween(int32_t low, int32_t high) { return low + std::rand() % (high - low + 1); }

}  // namespace SystemUtils
