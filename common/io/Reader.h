#pragma once

// Abstract reader: every operation is a harmless no-op until a concrete
// reader overrides it.

#include <cstddef>
#include <cstdint>

class Reader {
 public:
  virtual ~Reader() = default;

  // Bytes read into buffer (at most n).
  virtual size_t Read(void* /*buffer*/, size_t /*n*/) { return 0; }
  // One line into buffer, newline kept; its length plus one, 0 at the end.
  virtual int32_t ReadLine(char* /*buffer*/, int32_t /*size*/) { return 0; }
  virtual void Close() {}
  virtual uint32_t GetSize() { return 0; }
  virtual int GetFd() { return -1; }
};
