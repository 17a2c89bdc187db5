#pragma once

// The descriptor helpers shared by the file reader and writer. They work on
// plain descriptors rather than stdio streams: a stream takes a heap buffer
// that the long-running watchdog would keep as private memory for good.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

// The seek rule: -1 means the end of the file, any other negative offset
// fails without moving, otherwise the offset is absolute from the start.
// 0 on success, -1 on failure.
inline int SeekDescriptor(int fd, int64_t offset) {
  if (offset < -1) return -1;
  const off_t where =
      offset == -1 ? lseek(fd, 0, SEEK_END) : lseek(fd, static_cast<off_t>(offset), SEEK_SET);
  return where < 0 ? -1 : 0;
}

// read(2) or write(2) until n bytes, the end of the file or an error; the
// bytes transferred.
template <typename Transfer, typename Byte>
size_t TransferAll(Transfer transfer, int fd, Byte* bytes, size_t n) {
  size_t done = 0;
  while (done < n) {
    const ssize_t got = transfer(fd, bytes + done, n - done);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    done += static_cast<size_t>(got);
  }
  return done;
}
