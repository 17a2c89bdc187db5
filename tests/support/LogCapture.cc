#include "tests/support/LogCapture.h"

#include <cstdio>

LogCapture::LogCapture() { previous_ = InstallLogSink(this); }

LogCapture::~LogCapture() { InstallLogSink(previous_); }

bool LogCapture::ShouldLog(uint32_t, LoggerLevel) { return true; }

void LogCapture::Print(uint32_t, const char*, LoggerLevel level, const char*, int, bool,
                       const char* format, va_list args) {
  char buffer[8192];
  std::vsnprintf(buffer, sizeof(buffer), format, args);
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.push_back({level, buffer});
}

std::vector<LogCapture::Line> LogCapture::Lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

size_t LogCapture::Count(const std::string& text) const { return CountWhere(nullptr, text); }

size_t LogCapture::Count(LoggerLevel level, const std::string& text) const {
  return CountWhere(&level, text);
}

size_t LogCapture::CountWhere(const LoggerLevel* level, const std::string& text) const {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t n = 0;
  for (const Line& line : lines_) {
    n += (level == nullptr || line.level == *level) && line.message.find(text) != std::string::npos;
  }
  return n;
}

std::string LogCapture::Dump() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string all;
  for (const Line& line : lines_) all += line.message;
  return all;
}

void LogCapture::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}
