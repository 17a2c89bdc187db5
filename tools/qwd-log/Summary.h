#pragma once

// The picture first: from the watchdog's own lines, per hour the launches,
// entity restarts (and how many were failures rather than requests), policy
// delays, mode switches, critical errors and crashes; then the restarts by
// entity and cause (the entity's status, a failed start, a process killed or
// crashed), and each mode switch and crash with its time. Built from the
// message texts the watchdog writes.

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "tools/qwd-log/LogRecord.h"

class Summary {
 public:
  void Add(const LogRecord& record);
  void Print(FILE* out) const;

 private:
  struct Hour {
    int launches = 0;   // processes started
    int restarts = 0;   // entities restarted
    int failures = 0;   // of those, not on request; and failed starts
    int delays = 0;     // policy delays
    int delaySec = 0;   // their seconds
    int switches = 0;   // operational mode switches
    int criticals = 0;  // critical-error sleeps
    int crashes = 0;    // crash records
  };

  std::map<std::string, Hour> hours_;                         // by "YYYY-MM-DD HH", "" when unknown
  std::map<std::string, std::map<std::string, int>> causes_;  // entity -> cause -> count
  std::vector<std::string> events_;  // mode switches and crashes, with their time
};
