#pragma once

// The records of several logs in one time order. Each log (the files of one
// name prefix, in the order they were written) keeps its own order; between
// logs the record with the earlier time goes first, ties to the log met
// first. A line without a time goes with the line before it. So a crash
// dump's record lands among the lines written around it, and a clock set
// back inside one log never reorders that log.

#include <functional>
#include <string>
#include <vector>

#include "tools/qwd-log/LogRecord.h"

class RecordMerge {
 public:
  using RecordFn = std::function<void(const LogRecord& record, const std::string& path)>;

  // A record read from the file at path, after those read before it.
  void Add(const std::string& path, LogRecord record);
  // Everything added, merged.
  void ForEach(const RecordFn& fn) const;

 private:
  struct Item {
    LogRecord record;
    std::string path;
    std::string time;  // the record's, or the last one before it in its log
  };
  struct Log {
    std::string prefix;       // the files' name prefix, or the path
    std::vector<Item> items;  // in reading order
  };

  std::vector<Log> logs_;  // in the order first met
};
