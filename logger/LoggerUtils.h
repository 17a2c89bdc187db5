#pragma once

// Log file names and the marker that closes every log file.

#include <cstddef>
#include <cstdint>

#include "common/LogFormat.h"

namespace LoggerUtils {

// Written when a log file is closed.
inline constexpr const char* kLogFileEndMarker = LogFormat::kEndMarker;
inline constexpr size_t kLogFileEndMarkerLength = LogFormat::kEndMarkerLength;

// "<directory>/<prefix>_<pid>_<generation>.<index>". False for a null buffer,
// zero capacity or a name that does not fit.
bool GenerateLogFileName(char* buffer, size_t capacity, const char* directory, const char* prefix,
                         int32_t pid, uint32_t generation, size_t index);

// For readers of finished files: when the buffer's last bytes are the end
// marker, cuts them off (terminating the buffer there) and returns the marker's
// length; otherwise leaves the buffer alone and returns 0.
size_t StripLogFileEndMarker(char* buffer, size_t length);

}  // namespace LoggerUtils
