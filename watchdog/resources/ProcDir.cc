#include "watchdog/resources/ProcDir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cctype>
#include <cstring>

namespace SysResMon {

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

ProcDir::ProcDir(const char* path) : fd_(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}

ProcDir::~ProcDir() {
  if (fd_ >= 0) close(fd_);
}

const dirent* ProcDir::Next() {
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

bool ProcDir::IsProcessEntry(const dirent* entry) const {
  if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0]))) return false;
  if (entry->d_type != DT_UNKNOWN) return entry->d_type == DT_DIR;
  // Only file systems that do not type their entries cost a stat.
  struct stat st {};
  return fstatat(fd_, entry->d_name, &st, 0) == 0 && S_ISDIR(st.st_mode);
}

ProcFile::ProcFile(const char* path) : fd_(open(path, O_RDONLY | O_CLOEXEC)) {}

ProcFile::~ProcFile() {
  if (fd_ >= 0) close(fd_);
}

bool ProcFile::ReadLine(char* line, size_t size) {
  size_t used = 0;
  while (used + 1 < size) {
    if (position_ == length_) {
      const ssize_t got = read(fd_, buffer_, sizeof(buffer_));
      if (got <= 0) break;
      length_ = static_cast<size_t>(got);
      position_ = 0;
    }
    const char c = buffer_[position_++];
    line[used++] = c;
    if (c == '\n') break;
  }
  if (size > 0) line[used] = '\0';
  return used > 0;
}

int32_t CountDirEntries(const char* path) {
  ProcDir dir(path);
  if (!dir.IsOpen()) return -1;
  int32_t count = 0;
  while (dir.Next() != nullptr) ++count;
  return count;
}

}  // namespace SysResMon
