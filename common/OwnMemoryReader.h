#pragma once

// Reads this process's own memory without ever faulting, for a stack walk
// inside the crash handler: the bytes go through a pipe, so the kernel does
// the copy and answers EFAULT for unmapped or protected addresses. Unlike
// process_vm_readv this works on old router kernels and under qemu's user
// mode. Async-signal-safe; the pipe lives as long as the reader.

#include "common/StackWalk.h"

class OwnMemoryReader final : public MemoryReader {
 public:
  // Opens the pipe; without it (no descriptors left) every read fails.
  OwnMemoryReader();
  ~OwnMemoryReader() override;
  OwnMemoryReader(const OwnMemoryReader&) = delete;
  OwnMemoryReader& operator=(const OwnMemoryReader&) = delete;

  // REQUIRES: size <= PIPE_BUF, so that a copy is all or nothing.
  bool Read(uintptr_t address, void* out, size_t size) override;

 private:
  int pipe_[2] = {-1, -1};  // read and write ends, non-blocking and close-on-exec
};
