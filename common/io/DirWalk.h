#pragma once

// The entries of one directory as the listing gives them, "." and ".."
// included, with the type the listing tells (DT_UNKNOWN where the file system
// does not). The listing is read with getdents64 into a small buffer inside
// the walk: opendir's heap buffer of 32 KiB, and the heap top it moves, would
// leave pages of the long-running watchdog dirty for good.

#include <dirent.h>

#include <cstddef>

class DirWalk {
 public:
  explicit DirWalk(const char* path);
  ~DirWalk();
  DirWalk(const DirWalk&) = delete;
  DirWalk& operator=(const DirWalk&) = delete;

  bool IsOpen() const { return fd_ >= 0; }
  // Next entry, valid until the following call; null at the end.
  const dirent* Next();
  // The open directory, for *at() calls on its entries.
  int Fd() const { return fd_; }

 private:
  int fd_;                       // the open directory, or -1
  alignas(8) char buffer_[512];  // records of the last getdents64
  size_t length_ = 0;            // bytes in buffer_
  size_t position_ = 0;          // next record in buffer_
  dirent entry_{};               // the entry Next() gave last
};
