#include "logger/LoggerUtils.h"

#include "common/LogFormat.h"

#include <cstdio>
#include <cstring>

namespace LoggerUtils {

bool GenerateLogFileName(char* buffer, size_t capacity, const char* directory, const char* prefix,
                         int32_t pid, uint32_t generation, size_t index) {
  if (buffer == nullptr || capacity == 0) return false;
  const int result = std::snprintf(buffer, capacity, QWD_LOG_FILE_NAME_FORMAT, directory, prefix,
                                   static_cast<int>(pid), static_cast<int>(generation), index);
  return result >= 0 && static_cast<size_t>(result) < capacity;
}

size_t StripLogFileEndMarker(char* buffer, size_t length) {
  if (buffer == nullptr || length < kLogFileEndMarkerLength) return 0;
  char* tail = buffer + length - kLogFileEndMarkerLength;
  if (std::memcmp(tail, kLogFileEndMarker, kLogFileEndMarkerLength) != 0) return 0;
  *tail = '\0';
  return kLogFileEndMarkerLength;
}

}  // namespace LoggerUtils
