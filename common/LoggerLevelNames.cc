#include "common/LoggerLevelNames.h"

#include <cstring>

namespace {

// The last entry only serves the reverse lookup's bound: LoggerLevelToStr
// prints "N/A" for it.
constexpr const char* kLoggerLevelToStr[] = {"DEBUG", "VERBOSE", "INFO",   "WARN",
                                             "ERROR", "FATAL",   "INVALID"};
constexpr uint32_t kNumRealLevels = static_cast<uint32_t>(LoggerLevel::INVALID);

}  // namespace

const char* LoggerLevelToStr(uint32_t level) {
  return level < kNumRealLevels ? kLoggerLevelToStr[level] : "N/A";
}

LoggerLevel LoggerLevelFromStr(const char* name) {
  if (name == nullptr) return LoggerLevel::INVALID;
  for (uint32_t level = 0; level < kNumRealLevels; ++level) {
    if (std::strcmp(name, kLoggerLevelToStr[level]) == 0) return static_cast<LoggerLevel>(level);
  }
  return LoggerLevel::INVALID;
}
