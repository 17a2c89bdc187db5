#pragma once

// The /proc files of one watched process that every watch cycle reads, held
// open from the process's launch or adoption to its stop: a cycle then costs
// one read per file instead of an open, a read and a close. A held file keeps
// naming the process it was opened for: once that process has been reaped
// its reads fail (ESRCH), even when the pid has gone to another process
// since, so a reused pid never passes for the watched one. Files live under
// GetProcRoot(); one that cannot be opened is tried again when next wanted.
// The status file, read only for the rare line that shows it, is not held.

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "common/StatusCode.h"
#include "watchdog/resources/ProcDir.h"

namespace SysResMon {

class ProcessFiles {
 public:
  enum File : uint8_t { kCmdline, kStatm, kFdDir, kFileCount };

  ProcessFiles() = default;
  ProcessFiles(const ProcessFiles&) = delete;
  ProcessFiles& operator=(const ProcessFiles&) = delete;

  // Drops the files held and opens those of pid; a pid below 1 only drops them.
  void Open(int32_t pid);
  void Close() { Open(-1); }
  // The pid the files are held for, -1 when none.
  int32_t Pid() const { return pid_; }
  // The file's descriptor (the fd directory's is O_PATH); -1 with errno set
  // when it cannot be opened.
  int Descriptor(File file);
  // "<root>/<pid>/<name>", for the lines that name the file.
  void Path(File file, char* path, size_t size) const;
  // The file from its start into buffer, terminated; the bytes read, 0 for
  // an empty file (a zombie's cmdline) and -1 (errno set) when it cannot be
  // read.
  ssize_t Read(File file, char* buffer, size_t size);
  // Resident size from statm, a tenth of the cost of the status file; false
  // where there is none to read.
  bool ReadRssKb(int32_t* rssKb);
  // As GetNumOpenFileDescriptors, the count taken from the held directory.
  StatusCode CountOpenFds(int32_t* count);

 private:
  int32_t pid_ = -1;                            // whose files are held, -1: none
  std::array<HeldProcFile, kFileCount> files_;  // by File
};

}  // namespace SysResMon
