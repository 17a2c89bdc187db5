#pragma once

// The stdio helpers shared by the file reader and writer.

#include <fcntl.h>

#include <cstdint>
#include <cstdio>

// fopen with a close-on-exec descriptor, so that no child inherits a log or a
// file being read. The "e" mode letter does that atomically where the C
// library knows it; uClibc ignores it, hence the explicit FD_CLOEXEC after.
inline FILE* OpenStream(const char* path, const char* mode) {
  FILE* stream = std::fopen(path, mode);
  if (stream != nullptr) fcntl(fileno(stream), F_SETFD, FD_CLOEXEC);
  return stream;
}

// The seek rule: -1 means the end of the file, any other negative offset
// fails without moving, otherwise the offset is absolute from the start.
inline int SeekStream(FILE* stream, int64_t offset) {
  if (offset == -1) return std::fseek(stream, 0, SEEK_END);
  if (offset < 0) return -1;
  return std::fseek(stream, static_cast<long>(offset), SEEK_SET);
}
