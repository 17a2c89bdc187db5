#pragma once

// A bare walk over one directory of the process file system. DirReader stats
// every entry and ends at the first one it cannot stat; under /proc an entry
// can vanish at any moment and a scan must go on past it, so these walks use
// the type that the listing itself gives.

#include <dirent.h>

#include <cstdint>

namespace SysResMon {

class ProcDir {
 public:
  explicit ProcDir(const char* path);
  ~ProcDir();
  ProcDir(const ProcDir&) = delete;
  ProcDir& operator=(const ProcDir&) = delete;

  bool IsOpen() const { return dir_ != nullptr; }
  // Next entry, "." and ".." included; null at the end.
  const dirent* Next();
  // A directory whose name begins with a digit: one process.
  bool IsProcessEntry(const dirent* entry) const;

 private:
  DIR* dir_;  // the open directory, or null when it could not be opened
};

// Every entry of the directory, "." and ".." included; -1 when it cannot be opened.
int32_t CountDirEntries(const char* path);

}  // namespace SysResMon
