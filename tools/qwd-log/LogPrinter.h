#pragma once

// Writes log records for people or for programs. Human form: one aligned
// line per entry, "time level source function message", coloured by level
// when asked; JSON Lines form: one JSON object per line, with "time",
// "timestamp", "level", "file", "line", "function" and "message" where known
// and "log", the file it came from. A line that could not be parsed is kept:
// "[unparsed] <text>", or {"unparsed": "<text>", "log": ...}.

#include <cstdio>
#include <string>

#include "tools/qwd-log/LogRecord.h"

class LogPrinter {
 public:
  LogPrinter(FILE* out, bool json, bool colour) : out_(out), json_(json), colour_(colour) {}

  // Entries and unparsed lines; header, end marker and blank lines are not
  // printed.
  void Print(const LogRecord& record, const std::string& logPath);

 private:
  void PrintHuman(const LogRecord& record);
  void PrintJson(const LogRecord& record, const std::string& logPath);

  FILE* out_;    // where the lines go
  bool json_;    // JSON Lines instead of the human form
  bool colour_;  // ANSI colours by level (human form only)
};
