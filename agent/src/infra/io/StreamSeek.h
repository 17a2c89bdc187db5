#pragma once

// The seek rule shared by the file reader and writer: -1 means the end of the
// file, any other negative offset fails without moving, otherwise the offset
// is absolute from the start.

#include <cstdint>
#include <cstdio>

inline int SeekStream(FILE* stream, int64_t offset) {
  if (offset == -1) return std::fseek(stream, 0, SEEK_END);
  if (offset < 0) return -1;
  return std::fseek(stream, static_cast<long>(offset), SEEK_SET);
}
