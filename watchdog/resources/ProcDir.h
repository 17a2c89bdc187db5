#pragma once

// A bare walk over one directory of the process file system. DirReader stats
// every entry and ends at the first one it cannot stat; under /proc an entry
// can vanish at any moment and a scan must go on past it, so these walks use
// the type that the listing itself gives.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "common/io/DirWalk.h"

namespace SysResMon {

class ProcDir {
 public:
  explicit ProcDir(const char* path) : walk_(path) {}

  bool IsOpen() const { return walk_.IsOpen(); }
  // Next entry, "." and ".." included; null at the end.
  const dirent* Next() { return walk_.Next(); }
  // A directory whose name begins with a digit: one process.
  bool IsProcessEntry(const dirent* entry) const;

 private:
  DirWalk walk_;  // the listing
};

// Lines of one /proc file, read straight into a fixed buffer: the watch
// cycle reads several of these each time, and stdio would add a
// descriptor-flag call, a stat and a heap buffer to every read.
class ProcFile {
 public:
  // Reads heldFd from its start when it is open, leaving it open; otherwise
  // opens path, and errno tells why when IsOpen() is false.
  explicit ProcFile(const char* path, int heldFd = -1);
  ~ProcFile();
  ProcFile(const ProcFile&) = delete;
  ProcFile& operator=(const ProcFile&) = delete;

  bool IsOpen() const { return fd_ >= 0; }
  // The next line with its newline (cut to size - 1 characters, as fgets
  // does), terminated; false at the end.
  bool ReadLine(char* line, size_t size);

 private:
  int fd_;               // the open file, or -1
  bool owned_;           // fd_ was opened here and is closed here
  bool atEnd_ = false;   // the last read came short: nothing follows
  off_t offset_ = 0;     // where the next read starts in the file
  char buffer_[2048];    // what the last read gave: meminfo in one read
  size_t length_ = 0;    // bytes in buffer_
  size_t position_ = 0;  // next unread byte of buffer_
};

// One /proc file kept open between watch cycles and read again from its start
// each time (through ProcFile or pread), which saves the open and close of
// every cycle. A process's file keeps naming the process it was opened for.
class HeldProcFile {
 public:
  HeldProcFile() = default;
  ~HeldProcFile() { Close(); }
  HeldProcFile(const HeldProcFile&) = delete;
  HeldProcFile& operator=(const HeldProcFile&) = delete;

  // Opens path with flags (and close-on-exec), dropping what was held; false
  // (errno set) when it cannot.
  bool Open(const char* path, int flags);
  void Close();
  bool IsOpen() const { return fd_ >= 0; }
  // -1 when nothing is held.
  int Descriptor() const { return fd_; }

 private:
  int fd_ = -1;  // the held file, or -1
};

// Every entry of the directory, "." and ".." included; -1 when it cannot be opened.
int32_t CountDirEntries(const char* path);

}  // namespace SysResMon
