#pragma once

// A bare walk over one directory of the process file system. DirReader stats
// every entry and ends at the first one it cannot stat; under /proc an entry
// can vanish at any moment and a scan must go on past it, so these walks use
// the type that the listing itself gives. The listing is read with
// getdents64 into a small buffer inside the walk: opendir's heap buffer of
// 32 KiB would leave its pages dirty in the heap for good.

#include <dirent.h>

#include <cstddef>
#include <cstdint>

namespace SysResMon {

class ProcDir {
 public:
  explicit ProcDir(const char* path);
  ~ProcDir();
  ProcDir(const ProcDir&) = delete;
  ProcDir& operator=(const ProcDir&) = delete;

  bool IsOpen() const { return fd_ >= 0; }
  // Next entry, "." and ".." included; null at the end.
  const dirent* Next();
  // A directory whose name begins with a digit: one process.
  bool IsProcessEntry(const dirent* entry) const;

 private:
  int fd_;                       // the open directory, or -1
  alignas(8) char buffer_[512];  // records of the last getdents64
  size_t length_ = 0;            // bytes in buffer_
  size_t position_ = 0;          // next record in buffer_
  dirent entry_{};               // the entry Next() gave last
};

// Lines of one /proc file, read straight into a fixed buffer: the watch
// cycle reads several of these each time, and stdio would add a
// descriptor-flag call, a stat and a heap buffer to every read.
class ProcFile {
 public:
  // errno tells why when IsOpen() is false.
  explicit ProcFile(const char* path);
  ~ProcFile();
  ProcFile(const ProcFile&) = delete;
  ProcFile& operator=(const ProcFile&) = delete;

  bool IsOpen() const { return fd_ >= 0; }
  // The next line with its newline (cut to size - 1 characters, as fgets
  // does), terminated; false at the end.
  bool ReadLine(char* line, size_t size);

 private:
  int fd_;               // the open file, or -1
  char buffer_[1024];    // what the last read gave (small: it lives on the stack)
  size_t length_ = 0;    // bytes in buffer_
  size_t position_ = 0;  // next unread byte of buffer_
};

// Every entry of the directory, "." and ".." included; -1 when it cannot be opened.
int32_t CountDirEntries(const char* path);

}  // namespace SysResMon
