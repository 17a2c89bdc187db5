#pragma once

// Pins the local time zone for the lines' date text and restores it after.

#include <cstdlib>
#include <ctime>
#include <string>

class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* zone) {
    const char* old = std::getenv("TZ");
    hadZone_ = old != nullptr;
    if (hadZone_) oldZone_ = old;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedTimeZone() {
    if (hadZone_) {
      setenv("TZ", oldZone_.c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  bool hadZone_ = false;
  std::string oldZone_;
};

// 2023-11-14 22:13:20 UTC.
constexpr time_t kWallClock = 1700000000;
