#pragma once

// Records every line logged while it is installed, for tests that check what a
// module logs. Installs itself on construction and restores the previous sink
// on destruction.

#include <cstdarg>
#include <cstdio>
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

  LogCapture() : previous_(InstallLogSink(this)) {}
  ~LogCapture() { InstallLogSink(previous_); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  bool ShouldLog(uint32_t, LoggerLevel) override { return true; }
  void Print(uint32_t, const char*, LoggerLevel level, const char*, int, bool, const char* format,
             va_list args) override __attribute__((format(printf, 8, 0))) {
    char buffer[8192];
    std::vsnprintf(buffer, sizeof(buffer), format, args);
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back({level, buffer});
  }

  std::vector<Line> Lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  // Number of lines whose message contains text, at exactly this level when
  // one is given.
  size_t Count(const std::string& text) const { return Count(LoggerLevel::INVALID, text); }
  size_t Count(LoggerLevel level, const std::string& text) const {
    size_t n = 0;
    for (const Line& line : Lines()) {
      n += (level == LoggerLevel::INVALID || line.level == level) &&
           line.message.find(text) != std::string::npos;
    }
    return n;
  }
  bool Contains(const std::string& text) const { return Count(text) > 0; }
  // The whole log, one message after the other, for failure messages.
  std::string Dump() const {
    std::string all;
    for (const Line& line : Lines()) all += line.message;
    return all;
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Line> lines_;
  LogSink* previous_;
};
