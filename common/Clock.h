#pragma once

// The process's clocks and sleeping, behind one seam so that tests can replay
// hours of supervision in milliseconds. The default is the real system.

#include <poll.h>

#include <cstdint>
#include <ctime>

#include "common/Seam.h"

class Clock {
 public:
  virtual ~Clock() = default;
  // clock_gettime for CLOCK_MONOTONIC or CLOCK_REALTIME; 0 on success.
  virtual int GetTime(clockid_t clockId, timespec* out) = 0;
  // Blocks the caller for the given time (or, in a fake, lets it pass).
  virtual void SleepMsec(uint32_t msec) = 0;
  // poll(2) whose time-out (milliseconds, negative: none) runs on this clock.
  // The default is the real poll, real time included. (Inline, like the whole
  // interface, so that it has no key function in the RTTI-free library.)
  virtual int Poll(pollfd* fds, nfds_t count, int timeoutMsec) {
    return poll(fds, count, timeoutMsec);
  }
};

template <>
Seam<Clock>& SeamOf<Clock>();

// The clock in force for the whole process.
Clock& GetClock();
// Installs a clock and returns the previous one; nullptr restores the real one.
Clock* InstallClock(Clock* clock);

// Sleeping through the installed clock.
inline void SleepMsec(uint32_t msec) { GetClock().SleepMsec(msec); }
inline void SleepSec(uint32_t sec) { GetClock().SleepMsec(sec * 1000u); }
// Polling through the installed clock.
inline int PollMsec(pollfd* fds, nfds_t count, int timeoutMsec) {
  return GetClock().Poll(fds, count, timeoutMsec);
}
