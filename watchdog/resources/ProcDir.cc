#include "watchdog/resources/ProcDir.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>

namespace SysResMon {

bool ProcDir::IsProcessEntry(const dirent* entry) const {
  if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0]))) return false;
  if (entry->d_type != DT_UNKNOWN) return entry->d_type == DT_DIR;
  // Only file systems that do not type their entries cost a stat.
  struct stat st {};
  return fstatat(walk_.Fd(), entry->d_name, &st, 0) == 0 && S_ISDIR(st.st_mode);
}

ProcFile::ProcFile(const char* path, int heldFd)
    : fd_(heldFd >= 0 ? heldFd : open(path, O_RDONLY | O_CLOEXEC)), owned_(heldFd < 0) {}

ProcFile::~ProcFile() {
  if (owned_ && fd_ >= 0) close(fd_);
}

bool ProcFile::ReadLine(char* line, size_t size) {
  size_t used = 0;
  while (used + 1 < size) {
    if (position_ == length_) {
      if (atEnd_) break;
      const ssize_t got = pread(fd_, buffer_, sizeof(buffer_), offset_);
      if (got <= 0) break;
      // /proc makes a file whole and hands out all the read asks for: a
      // short read was its end, and one more read to hear so is saved.
      atEnd_ = static_cast<size_t>(got) < sizeof(buffer_);
      offset_ += got;
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

bool HeldProcFile::Open(const char* path, int flags) {
  Close();
  fd_ = open(path, flags | O_CLOEXEC);
  return fd_ >= 0;
}

void HeldProcFile::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

int32_t CountDirEntries(const char* path) {
  ProcDir dir(path);
  if (!dir.IsOpen()) return -1;
  int32_t count = 0;
  while (dir.Next() != nullptr) ++count;
  return count;
}

}  // namespace SysResMon
