#pragma once

// File tests and small whole-file writes used by start-up, supervision and
// the logger.

#include <sys/types.h>

#include <cstdint>

#include "common/StatusCode.h"

// access(F_OK) succeeds.
bool FileExists(const char* path);
// lstat succeeds: anything at the path, a dangling link included.
bool symlink_exists(const char* path);
// chmod; FAILURE on error, nothing logged.
StatusCode FileChangeMode(const char* path, mode_t mode);

namespace FileUtils {
// Size from stat, 0xFFFFFFFF when stat fails.
uint32_t GetFileSizeInBytes(const char* path);
}  // namespace FileUtils

// Replaces the file's content with text (at most 31 characters in use);
// SUCCESS when all of it (measured up to 32) was written.
StatusCode WriteStringToFile(const char* text, const char* path);
// "%d\n" of the pid, in a new file of mode 0644 renamed into place (RootFiles.h).
StatusCode WritePidFile(int32_t pid, const char* path);
// "%d" of the value.
StatusCode WriteIntToFile(int32_t value, const char* path);

// Copies source over destination with one sendfile. The destination is not
// truncated: a longer existing file keeps its tail unless removeDestFirst.
StatusCode CopyFile(const char* source, const char* destination, mode_t mode, bool keepSourceMode,
                    bool removeDestFirst);

// text strictly longer than suffix and ending with it (lengths up to 128).
bool StrEndsWith(const char* text, const char* suffix);
