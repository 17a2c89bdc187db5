#pragma once

// Expected log text for the logger's tests.

#include <cstdlib>
#include <ctime>
#include <string>

// 2023-11-14 22:13:20 UTC.
constexpr time_t kWallClock = 1700000000;

// The local time zone of the lines' date text; every test of the binary sets it.
inline void SetTimeZone(const char* zone) {
  setenv("TZ", zone, 1);
  tzset();
}

// The 101-byte header of an id of at most 81 characters.
inline std::string Header(const std::string& accountId) {
  return "{\"account_id\": \"" + accountId + "\"}," + std::string(81 - accountId.size(), ' ') +
         "\n";
}

// A JSON line from line 486 at kWallClock in UTC and 1234 s since boot.
inline std::string JsonLine(const std::string& level, const std::string& message,
                            const std::string& file = "watchdog.c") {
  return "{\"level\": \"" + level +
         "\", \"timestamp\": 1234, \"metadata\" : {\"router_timestamp\" : \"2023-11-14 "
         "22:13:20\", \"c_file\": \"" +
         file + "\", \"line\": 486 }, \"message\": \"" + message + "\"},\n";
}
