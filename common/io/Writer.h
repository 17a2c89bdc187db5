#pragma once

// Abstract writer: every operation is a harmless no-op until a concrete
// writer overrides it.

#include <cstddef>
#include <cstdint>

class Writer {
 public:
  virtual ~Writer() = default;

  // Replaces the whole content with text; bytes written.
  virtual size_t WriteString(const char* /*text*/) { return 0; }
  // Mode 0 closes after writing, 2 flushes, anything else keeps the stream as is.
  virtual size_t Write(const void* /*buffer*/, size_t /*n*/, int32_t /*mode*/) { return 0; }
  // -1 seeks to the end, other negative offsets fail, else absolute.
  virtual int Seek(int64_t /*offset*/) { return 0; }
  virtual void Close() {}
};
