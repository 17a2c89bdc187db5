#pragma once

// One line of an agent log file, understood. The files hold JSON lines
//   {"level": "INFO", "timestamp": 12, "metadata" : {"router_timestamp" :
//    "2026-11-23 07:41:52", "c_file": "../watchdog/X.cc", "line": 40 },
//    "message": "text "},
// between a 101-byte account id header line and an end marker; the crash
// dump holds the same lines with the level "CRASH". Programs that log in
// human-readable form write
//   2026-11-23 07:41:52 ../watchdog/X.cc(40): INFO: <account> <function> text
// Anything else is kept as it is, never dropped.

#include <cstdint>
#include <string>
#include <string_view>

enum class LogLineKind {
  ENTRY,       // a log entry, fields below
  HEADER,      // the account id header line (accountId)
  END_MARKER,  // "<--- Log file end --->"
  BLANK,       // empty or blanks only
  UNPARSED,    // anything else: text
};

struct LogRecord {
  LogLineKind kind = LogLineKind::UNPARSED;
  std::string time;        // wall-clock text, empty when unknown
  int64_t timestamp = -1;  // monotonic seconds, -1 when unknown
  std::string level;       // "DEBUG" .. "FATAL", "CRASH"
  std::string file;        // source file as logged, without leading "../" or "./"
  int64_t line = -1;       // source line, -1 when unknown
  std::string function;    // empty when the line does not carry it
  std::string message;     // without the trailing blank or newline
  std::string accountId;   // HEADER only
  std::string text;        // the line as read
};

LogRecord ParseLogLine(std::string_view line);

// Rank of a level name in any case: DEBUG 0 .. FATAL 5, CRASH 6; -1 unknown.
int LogLevelRank(std::string_view level);
