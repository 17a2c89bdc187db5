#pragma once

// Log lines on standard output.

#include <memory>

#include "logger/LoggerBaseTarget.h"

class ConsoleLoggerTarget final : public LoggerBaseTarget {
 public:
  // Null when memory is exhausted.
  static std::unique_ptr<ConsoleLoggerTarget> Create();

  // Prints the text up to its terminator when enabled; the length is not used.
  bool Write(const char* text, size_t length) override;

 private:
  ConsoleLoggerTarget() = default;
};
