#include "common/io/DirWalk.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

namespace {

// The kernel's record; the C library's dirent differs from it on 32-bit
// targets, hence the copy into one.
struct KernelDirent {
  uint64_t ino;
  int64_t off;
  uint16_t reclen;
  uint8_t type;
  char name[1];
};

}  // namespace

DirWalk::DirWalk(const char* path) : fd_(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}

DirWalk::~DirWalk() {
  if (fd_ >= 0) close(fd_);
}

const dirent* DirWalk::Next() {
  if (fd_ < 0) return nullptr;
  if (position_ >= length_) {
    const long got = syscall(SYS_getdents64, fd_, buffer_, sizeof(buffer_));
    if (got <= 0) return nullptr;
    length_ = static_cast<size_t>(got);
    position_ = 0;
  }
  const auto* record = reinterpret_cast<const KernelDirent*>(buffer_ + position_);
  position_ += record->reclen;
  entry_.d_ino = static_cast<decltype(entry_.d_ino)>(record->ino);
  entry_.d_type = record->type;
  const size_t nameSize = record->reclen - offsetof(KernelDirent, name);
  const size_t copied = nameSize < sizeof(entry_.d_name) ? nameSize : sizeof(entry_.d_name) - 1;
  std::memcpy(entry_.d_name, record->name, copied);
  entry_.d_name[copied] = '\0';
  return &entry_;
}
