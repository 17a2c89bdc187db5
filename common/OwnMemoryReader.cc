#include "common/OwnMemoryReader.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

OwnMemoryReader::OwnMemoryReader() {
  if (pipe2(pipe_, O_CLOEXEC | O_NONBLOCK) != 0) pipe_[0] = pipe_[1] = -1;
}

OwnMemoryReader::~OwnMemoryReader() {
  if (pipe_[0] < 0) return;
  close(pipe_[0]);
  close(pipe_[1]);
}

bool OwnMemoryReader::Read(uintptr_t address, void* out, size_t size) {
  if (pipe_[1] < 0) return false;
  const ssize_t length = static_cast<ssize_t>(size);
  // The raw system call: a sanitizer's write wrapper would check the bytes
  // first and report the very addresses this probe is for.
  return syscall(SYS_write, pipe_[1], reinterpret_cast<const void*>(address), size) == length &&
         read(pipe_[0], out, size) == length;
}
