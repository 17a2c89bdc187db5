#pragma once

// Clocks for tests. Both install themselves on construction and put the
// previous clock back on destruction.

#include <poll.h>

#include <atomic>
#include <cstdint>
#include <ctime>

#include "common/Clock.h"

// Time stands still until a sleep or Advance() moves it: a 3600 s sleep
// returns at once, 3600 s later on the monotonic clock. The wall clock is the
// real one, or stands at wallSec when that is given. A poll sees only what
// is already queued; when nothing is, its whole time-out passes at once (so
// peers must have sent before the poll: live children need a ScaledClock).
class FakeClock final : public Clock {
 public:
  explicit FakeClock(int64_t startMonoMsec = 1000000, time_t wallSec = 0)
      : monoMsec_(startMonoMsec), wallSec_(wallSec), previous_(InstallClock(this)) {}
  ~FakeClock() override { InstallClock(previous_); }

  int GetTime(clockid_t clockId, timespec* out) override {
    if (clockId != CLOCK_MONOTONIC && wallSec_ == 0) return clock_gettime(clockId, out);
    if (clockId != CLOCK_MONOTONIC) {
      *out = timespec{wallSec_, 0};
      return 0;
    }
    const int64_t msec = monoMsec_;
    *out = timespec{static_cast<time_t>(msec / 1000), static_cast<long>(msec % 1000) * 1000000L};
    return 0;
  }
  void SleepMsec(uint32_t msec) override {
    monoMsec_ += msec;
    sleptMsec_ += msec;
    ++sleepCalls_;
  }
  int Poll(pollfd* fds, nfds_t count, int timeoutMsec) override {
    // An endless wait can end only with an event: that one is waited for for real.
    const int ready = poll(fds, count, timeoutMsec < 0 ? -1 : 0);
    if (ready == 0) monoMsec_ += timeoutMsec;
    return ready;
  }

  void Advance(int64_t msec) { monoMsec_ += msec; }
  int64_t NowMsec() const { return monoMsec_; }
  // Total time slept through this clock.
  int64_t SleptMsec() const { return sleptMsec_; }
  uint32_t SleepCalls() const { return sleepCalls_; }

 private:
  std::atomic<int64_t> monoMsec_;
  const time_t wallSec_;
  std::atomic<int64_t> sleptMsec_{0};
  std::atomic<uint32_t> sleepCalls_{0};
  Clock* previous_;
};

// Runs time `factor` times faster than the real clock, sleeps included, so
// real children stay in step with the supervisor's notion of time: with 1000,
// a second of watchdog time is a millisecond of real time.
class ScaledClock final : public Clock {
 public:
  explicit ScaledClock(uint32_t factor)
      : factor_(factor), realStartNsec_(RealMonoNsec()), previous_(InstallClock(this)) {}
  ~ScaledClock() override { InstallClock(previous_); }

  int GetTime(clockid_t clockId, timespec* out) override {
    if (clockId != CLOCK_MONOTONIC) return clock_gettime(clockId, out);
    // Start well away from zero so "0 means never" fields are never hit by chance.
    const int64_t nsec = 1000000000000LL + (RealMonoNsec() - realStartNsec_) * factor_;
    *out =
        timespec{static_cast<time_t>(nsec / 1000000000LL), static_cast<long>(nsec % 1000000000LL)};
    return 0;
  }
  void SleepMsec(uint32_t msec) override {
    sleptMsec_ += msec;
    const int64_t realNsec = static_cast<int64_t>(msec) * 1000000LL / factor_;
    timespec left{static_cast<time_t>(realNsec / 1000000000LL),
                  static_cast<long>(realNsec % 1000000000LL)};
    while (nanosleep(&left, &left) != 0) {
    }
  }

  int64_t SleptMsec() const { return sleptMsec_; }

 private:
  static int64_t RealMonoNsec() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec;
  }

  uint32_t factor_;
  int64_t realStartNsec_;
  std::atomic<int64_t> sleptMsec_{0};
  Clock* previous_;
};
