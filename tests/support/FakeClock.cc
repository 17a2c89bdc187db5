#include "tests/support/FakeClock.h"

#include <ctime>

namespace {

timespec FromMsec(int64_t msec) {
  return timespec{static_cast<time_t>(msec / 1000), static_cast<long>(msec % 1000) * 1000000L};
}

int64_t RealMonoNsec() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

}  // namespace

FakeClock::FakeClock(int64_t startMonoMsec) : monoMsec_(startMonoMsec) {
  previous_ = InstallClock(this);
}

FakeClock::~FakeClock() { InstallClock(previous_); }

int FakeClock::GetTime(clockid_t clockId, timespec* out) {
  if (clockId == CLOCK_MONOTONIC) {
    *out = FromMsec(monoMsec_);
    return 0;
  }
  return clock_gettime(clockId, out);
}

void FakeClock::SleepMsec(uint32_t msec) {
  monoMsec_ += msec;
  sleptMsec_ += msec;
  ++sleepCalls_;
}

int FakeClock::Poll(pollfd* fds, nfds_t count, int timeoutMsec) {
  // An endless wait can end only with an event: that one is waited for for real.
  const int ready = poll(fds, count, timeoutMsec < 0 ? -1 : 0);
  if (ready == 0) monoMsec_ += timeoutMsec;
  return ready;
}

ScaledClock::ScaledClock(uint32_t factor) : factor_(factor) {
  clock_gettime(CLOCK_MONOTONIC, &realStart_);
  previous_ = InstallClock(this);
}

ScaledClock::~ScaledClock() { InstallClock(previous_); }

int ScaledClock::GetTime(clockid_t clockId, timespec* out) {
  if (clockId != CLOCK_MONOTONIC) return clock_gettime(clockId, out);
  const int64_t startNsec =
      static_cast<int64_t>(realStart_.tv_sec) * 1000000000LL + realStart_.tv_nsec;
  const int64_t scaledNsec = (RealMonoNsec() - startNsec) * factor_;
  // Start well away from zero so "0 means never" fields are never hit by chance.
  const int64_t nsec = 1000000000000LL + scaledNsec;
  *out = timespec{static_cast<time_t>(nsec / 1000000000LL), static_cast<long>(nsec % 1000000000LL)};
  return 0;
}

void ScaledClock::SleepMsec(uint32_t msec) {
  sleptMsec_ += msec;
  const int64_t realNsec = static_cast<int64_t>(msec) * 1000000LL / factor_;
  timespec left{static_cast<time_t>(realNsec / 1000000000LL),
                static_cast<long>(realNsec % 1000000000LL)};
  while (nanosleep(&left, &left) != 0) {
  }
}
