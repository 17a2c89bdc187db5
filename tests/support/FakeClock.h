#pragma once

// Clocks for tests. Both install themselves on construction and put the
// previous clock back on destruction.

#include <atomic>
#include <cstdint>

#include "common/Clock.h"

// Time stands still until a sleep or Advance() moves it: a 3600 s sleep
// returns at once, 3600 s later on the monotonic clock. A poll sees only what
// is already queued; when nothing is, its whole time-out passes at once (so
// peers must have sent before the poll: live children need a ScaledClock).
class FakeClock final : public Clock {
 public:
  explicit FakeClock(int64_t startMonoMsec = 1000000);
  ~FakeClock() override;

  int GetTime(clockid_t clockId, timespec* out) override;
  void SleepMsec(uint32_t msec) override;
  int Poll(pollfd* fds, nfds_t count, int timeoutMsec) override;

  void Advance(int64_t msec) { monoMsec_ += msec; }
  int64_t NowMsec() const { return monoMsec_; }
  // Total time slept through this clock.
  int64_t SleptMsec() const { return sleptMsec_; }
  uint32_t SleepCalls() const { return sleepCalls_; }

 private:
  std::atomic<int64_t> monoMsec_;
  std::atomic<int64_t> sleptMsec_{0};
  std::atomic<uint32_t> sleepCalls_{0};
  Clock* previous_;
};

// Runs time `factor` times faster than the real clock, sleeps included, so
// real children stay in step with the supervisor's notion of time: with 1000,
// a second of watchdog time is a millisecond of real time.
class ScaledClock final : public Clock {
 public:
  explicit ScaledClock(uint32_t factor);
  ~ScaledClock() override;

  int GetTime(clockid_t clockId, timespec* out) override;
  void SleepMsec(uint32_t msec) override;

  int64_t SleptMsec() const { return sleptMsec_; }

 private:
  uint32_t factor_;
  timespec realStart_{};
  std::atomic<int64_t> sleptMsec_{0};
  Clock* previous_;
};
