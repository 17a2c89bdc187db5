#pragma once

// Records every line logged while it is installed, for tests that check what a
// module logs. Installs itself on construction and restores the previous sink
// on destruction.

#include <cstdarg>
#include <mutex>
#include <string>
#include <vector>

#include "common/Log.h"

class LogCapture final : public LogSink {
 public:
  struct Line {
    LoggerLevel level;
    std::string message;
  };

  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  bool ShouldLog(uint32_t component, LoggerLevel level) override;
  void Print(uint32_t component, const char* function, LoggerLevel level, const char* sourceFile,
             int line, bool checkLevel, const char* format, va_list args) override
      __attribute__((format(printf, 8, 0)));

  std::vector<Line> Lines() const;
  // Number of lines whose message contains text.
  size_t Count(const std::string& text) const;
  bool Contains(const std::string& text) const { return Count(text) > 0; }
  // Number of lines at exactly this level whose message contains text.
  size_t Count(LoggerLevel level, const std::string& text) const;
  // The whole log, one message after the other, for failure messages.
  std::string Dump() const;
  void Clear();

 private:
  // Lines containing text, at *level when level is set.
  size_t CountWhere(const LoggerLevel* level, const std::string& text) const;

  mutable std::mutex mutex_;
  std::vector<Line> lines_;
  LogSink* previous_;
};
