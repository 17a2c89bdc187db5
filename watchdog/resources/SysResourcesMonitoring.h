#pragma once

// Numbers about the whole system and single processes, read from the process
// file system under GetProcRoot(): memory totals, a process's status, open
// descriptors, files in a directory, zombies with the parents that leave them
// and the system-wide thread count. Stateless: callers own every output, the
// highest values seen so far and the files the watch cycle keeps open.
//
// /proc changes under the reader: a process that vanishes between the listing
// and its status read is skipped, never taken for a failure of the whole scan.

#include <array>
#include <cstddef>
#include <cstdint>

#include "common/StatusCode.h"
#include "watchdog/resources/ProcDir.h"
#include "watchdog/resources/ProcessFiles.h"

namespace SysResMon {

constexpr size_t kProcNameSize = 256;
// Step of resident size growth, in kB, that the callers report at.
constexpr int32_t kMemoryStepKb = 1024;

// Memory totals in kB, as /proc/meminfo gives them.
struct MemoryInfo {
  uint32_t totalKb;      // MemTotal
  uint32_t freeKb;       // MemFree
  uint32_t availableKb;  // MemAvailable, or free + cached where the kernel has none
  uint32_t buffersKb;    // Buffers
  uint32_t cachedKb;     // Cached
};

// What one process's status file says.
struct ProcessStatus {
  int32_t pid;                            // the process
  std::array<char, kProcNameSize> name;   // first word of Name:
  std::array<char, kProcNameSize> state;  // first word of State:, "Z" for a zombie
  int32_t vmHwmKb;                        // peak resident size
  int32_t vmRssKb;                        // resident size
  int32_t ppid;                           // parent process id
  int32_t threads;                        // number of threads
  int32_t fdSize;                         // size of the descriptor table
};

// FAILURE when meminfo cannot be opened or any of its lines lacks a name or a
// number: every line must parse. With held, the file is opened there at the
// first call and read again at the next ones.
StatusCode ReadMeminfo(MemoryInfo& memoryInfo, HeldProcFile* held = nullptr);

// INVALID_PARAM for a pid below 1; FAILURE when the status file cannot be
// read (the process is gone). Keys it does not know are skipped.
StatusCode ReadProcessStatus(ProcessStatus& status, int32_t pid);

// Number of directories under the root whose name begins with a digit; -1
// (logged) when the root cannot be read.
int32_t CountProcesses();

// Logs the processes by resident size, largest first: the first maxProcesses
// of them, or all for 0 or less.
void LogProcessesMemConsumption(int32_t maxProcesses);

// Entries of the directory besides "." and "..". Null arguments are reported;
// a null directory then counts as one that cannot be opened (FAILURE).
StatusCode CountFilesInDirectory(const char* dir, int32_t* filesNumber);

// Entries of <root>/<pid>/fd, which heldDir (when not -1) holds open.
// INVALID_PARAM for a pid below 1 or a null output.
StatusCode GetNumOpenFileDescriptors(int32_t* count, int32_t pid, int heldDir = -1);

// Watch-cycle check of one process through its held files: logs "MEM MAX"
// once the resident size has grown by memoryStepKb over highestRssKb, and
// "FD MAX" once the open descriptors exceed highestFds, raising the caller's
// highest values. A null name shows the status file's name. The status file
// is read only for a line to log (or where statm is missing).
void CheckProcessResConsumption(const char* name, ProcessFiles& files, int32_t memoryStepKb,
                                int32_t& highestRssKb, int32_t& highestFds);

// One pass over every process: zombies (state "Z") and the threads of all
// processes, with the parents that leave zombies logged; parents beyond the
// first 20 are reported as not counted, their zombies still are. Null outputs
// are reported and then not written.
StatusCode MonitorZombiesAndThreads(int32_t* zombiesCountOut, int32_t* systemThreadsCountOut);

}  // namespace SysResMon
