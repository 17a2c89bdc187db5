#include "common/Clock.h"

#include <cerrno>

namespace {

class RealClock final : public Clock {
 public:
  int GetTime(clockid_t clockId, timespec* out) override { return clock_gettime(clockId, out); }

  void SleepMsec(uint32_t msec) override {
    timespec left{static_cast<time_t>(msec / 1000u), static_cast<long>(msec % 1000u) * 1000000L};
    // Signals (SIGTERM, SIGCHLD) must not cut a policy delay short by accident.
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
  }
};

RealClock g_realClock;
Seam<Clock> g_clock(&g_realClock);

}  // namespace

template <>
Seam<Clock>& SeamOf<Clock>() {
  return g_clock;
}

Clock& GetClock() { return g_clock.Get(); }

Clock* InstallClock(Clock* clock) { return g_clock.Install(clock); }
