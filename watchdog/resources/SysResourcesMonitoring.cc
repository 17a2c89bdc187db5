#include "watchdog/resources/SysResourcesMonitoring.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "common/Log.h"
#include "common/ProcRoot.h"
#include "common/ProcessUtils.h"
#include "watchdog/resources/ProcDir.h"

namespace SysResMon {

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_INFRA_UTILS;
constexpr size_t kPathSize = 512;
// Parents of zombies counted by one scan; the rest are only logged.
constexpr uint32_t kMaxZombieSpawners = 20;
// Extra status records allocated over the counted processes, for those born meanwhile.
constexpr int32_t kProcessListHeadroom = 20;

// The status for a line to log; its failure is logged.
bool ReadStatusForLine(ProcessStatus& status, int32_t pid) {
  const StatusCode ret = ReadProcessStatus(status, pid);
  if (ret == StatusCode::SUCCESS) return true;
  QWD_LOG_ERROR(kComponent, "Can't read process status for PID %d, ret %d\n", pid,
                StatusCodeToInt(ret));
  return false;
}

// Every readable process's status, in the order of the root's listing.
struct ProcessList {
  std::unique_ptr<ProcessStatus[]> records;  // count + headroom slots
  int32_t size = 0;                          // slots filled
};

// One pass over the root. Processes that vanish meanwhile are skipped; those
// born meanwhile fill the headroom, and the pass ends when it is full.
StatusCode ReadProcessList(ProcessList& list) {
  const int32_t count = CountProcesses();
  if (count < 0) {
    QWD_LOG_ERROR(kComponent, "Can't read number of pids\n");
    return StatusCode::FAILURE;
  }
  ProcDir root(GetProcRoot());
  if (!root.IsOpen()) {
    QWD_LOG_ERROR(kComponent, "Can't read directory %s\n", GetProcRoot());
    return StatusCode::FAILURE;
  }
  const int32_t capacity = count + kProcessListHeadroom;
  list.records.reset(new (std::nothrow) ProcessStatus[capacity]);
  if (!list.records) {
    QWD_LOG_ERROR(kComponent, "Failed allocating memory for psList\n");
    return StatusCode::FAILURE;
  }
  list.size = 0;
  for (const dirent* entry = root.Next(); entry != nullptr && list.size < capacity;
       entry = root.Next()) {
    const int32_t pid = std::atoi(entry->d_name);
    if (pid == 0) continue;
    const StatusCode ret = ReadProcessStatus(list.records[list.size], pid);
    if (ret != StatusCode::SUCCESS) {
      QWD_LOG_DEBUG(kComponent, "Can't read process status for PID %d, ret %d\n", pid,
                    StatusCodeToInt(ret));
      continue;
    }
    ++list.size;
  }
  return StatusCode::SUCCESS;
}

// A parent that leaves zombies, for one scan.
struct ZombieSpawner {
  int32_t pid;                           // the parent
  std::array<char, kProcNameSize> name;  // its name
  int32_t zombies;                       // its zombie children found
};

struct SpawnerTable {
  std::array<ZombieSpawner, kMaxZombieSpawners> entries;  // first-seen order
  uint32_t size = 0;                                      // entries in use

  void Count(const ProcessStatus& parent) {
    for (uint32_t i = 0; i < size; ++i) {
      if (entries[i].pid == parent.pid) {
        ++entries[i].zombies;
        return;
      }
    }
    if (size >= kMaxZombieSpawners) {
      QWD_LOG_ERROR(kComponent, "No space for counting zombie spawner! process name [%s] \n",
                    parent.name.data());
      return;
    }
    entries[size] = ZombieSpawner{parent.pid, parent.name, 1};
    ++size;
  }
};

const ProcessStatus* FindProcess(const ProcessList& list, int32_t pid) {
  for (int32_t i = 0; i < list.size; ++i) {
    if (list.records[i].pid == pid) return &list.records[i];
  }
  return nullptr;
}

}  // namespace

StatusCode CountFilesInDirectory(const char* dir, int32_t* filesNumber) {
  QWD_ASSERT(kComponent, dir != nullptr, "NULL != dir");
  QWD_ASSERT(kComponent, filesNumber != nullptr, "NULL != filesNumber");
  const int32_t entries = dir != nullptr ? CountDirEntries(dir) : -1;
  if (entries < 0) {
    QWD_LOG_ERROR(kComponent, "Can't open [%s] to get number of files\n",
                  dir != nullptr ? dir : "(null)");
    return StatusCode::FAILURE;
  }
  if (filesNumber != nullptr) *filesNumber = entries - 2;  // "." and ".."
  return StatusCode::SUCCESS;
}

StatusCode GetNumOpenFileDescriptors(int32_t* count, int32_t pid, int heldDir) {
  if (pid < 1) {
    QWD_LOG_ERROR(kComponent, "PID can't be less than 1\n");
    return StatusCode::INVALID_PARAM;
  }
  if (count == nullptr) {
    QWD_LOG_ERROR(kComponent, "num can't be NULL");
    return StatusCode::INVALID_PARAM;
  }
  char path[kPathSize];
  std::snprintf(path, sizeof(path), "%s/%d/fd", GetProcRoot(), pid);
  // The kernel's /proc (Linux 6.2 on) gives the count as the directory's
  // size: one stat per watch cycle instead of a listing. A listing of one's
  // own descriptors holds one more, its own, which the count keeps.
  struct stat info {};
  if (std::strcmp(GetProcRoot(), "/proc") == 0 &&
      (heldDir >= 0 ? fstat(heldDir, &info) : stat(path, &info)) == 0 && info.st_size > 0) {
    *count = static_cast<int32_t>(info.st_size) + (pid == GetCachedPid() ? 1 : 0);
    return StatusCode::SUCCESS;
  }
  if (CountFilesInDirectory(path, count) != StatusCode::SUCCESS) {
    QWD_LOG_ERROR(kComponent, "Failed to count files in directory [%s] \n", path);
    return StatusCode::FAILURE;
  }
  return StatusCode::SUCCESS;
}

void CheckProcessResConsumption(const char* name, ProcessFiles& files, int32_t memoryStepKb,
                                int32_t& highestRssKb, int32_t& highestFds) {
  // 64-bit sum: a highest value near the top of the range must not wrap.
  const auto grown = [&](int32_t rssKb) {
    return static_cast<int64_t>(rssKb) >= static_cast<int64_t>(highestRssKb) + memoryStepKb;
  };
  const int32_t pid = files.Pid();
  ProcessStatus status;
  int32_t rssKb = 0;
  const bool statusRead = !files.ReadRssKb(&rssKb) || grown(rssKb);
  if (statusRead && !ReadStatusForLine(status, pid)) return;
  if (statusRead && grown(status.vmRssKb)) {
    highestRssKb = status.vmRssKb;
    QWD_LOG_INFO(kComponent,
                 "MEM MAX: Process %s, PID %d is using %d Kb VM RSS, %d Kb VM HW, %d FD buff "
                 "size\n",
                 name != nullptr ? name : status.name.data(), pid, status.vmRssKb, status.vmHwmKb,
                 status.fdSize);
  }

  int32_t fds = 0;
  const StatusCode ret = files.CountOpenFds(&fds);
  if (ret != StatusCode::SUCCESS) {
    QWD_LOG_ERROR(kComponent, "Can't get number of open file descriptors for PID %d, ret %d\n", pid,
                  StatusCodeToInt(ret));
    return;
  }
  if (fds > highestFds) {
    if (name == nullptr && !statusRead && !ReadStatusForLine(status, pid)) return;
    highestFds = fds;
    QWD_LOG_INFO(kComponent, "FD MAX: Process %s, PID %d has %d open file descriptors\n",
                 name != nullptr ? name : status.name.data(), pid, fds);
  }
}

int32_t CountProcesses() {
  ProcDir root(GetProcRoot());
  if (!root.IsOpen()) {
    QWD_LOG_ERROR(kComponent, "Can't read directory %s\n", GetProcRoot());
    return -1;
  }
  int32_t count = 0;
  for (const dirent* entry = root.Next(); entry != nullptr; entry = root.Next()) {
    if (root.IsProcessEntry(entry)) ++count;
  }
  return count;
}

void LogProcessesMemConsumption(int32_t maxProcesses) {
  ProcessList list;
  if (ReadProcessList(list) != StatusCode::SUCCESS) return;
  std::sort(list.records.get(), list.records.get() + list.size,
            [](const ProcessStatus& a, const ProcessStatus& b) { return a.vmRssKb > b.vmRssKb; });

  QWD_LOG_INFO(kComponent, "PS: PID  NAME  VM_RSS_KB  VM_HWM_KB\n");
  const int32_t shown = maxProcesses > 0 ? std::min(maxProcesses, list.size) : list.size;
  for (int32_t i = 0; i < shown; ++i) {
    const ProcessStatus& ps = list.records[i];
    QWD_LOG_INFO(kComponent, "PS: %d  %s  %d  %d\n", ps.pid, ps.name.data(), ps.vmRssKb,
                 ps.vmHwmKb);
  }
}

StatusCode MonitorZombiesAndThreads(int32_t* zombiesCountOut, int32_t* systemThreadsCountOut) {
  QWD_ASSERT(kComponent, zombiesCountOut != nullptr, "NULL != zombiesCountOut");
  QWD_ASSERT(kComponent, systemThreadsCountOut != nullptr, "NULL != systemThreadsCountOut");

  SpawnerTable spawners;
  ProcessList list;
  if (ReadProcessList(list) != StatusCode::SUCCESS) return StatusCode::FAILURE;

  int32_t zombies = 0;
  int64_t threads = 0;  // wide: a made-up tree must not overflow the sum
  for (int32_t i = 0; i < list.size; ++i) {
    const ProcessStatus& ps = list.records[i];
    threads += ps.threads;
    if (std::strcmp(ps.state.data(), "Z") != 0) continue;
    ++zombies;
    const ProcessStatus* parent = FindProcess(list, ps.ppid);
    if (parent == nullptr) {
      QWD_LOG_ERROR(kComponent, "Failed to find zombie's parent! Zombie name: [%s], pid: [%d] \n",
                    ps.name.data(), ps.pid);
      continue;
    }
    spawners.Count(*parent);
  }

  if (zombiesCountOut != nullptr) *zombiesCountOut = zombies;
  if (systemThreadsCountOut != nullptr) {
    *systemThreadsCountOut =
        static_cast<int32_t>(std::clamp<int64_t>(threads, INT32_MIN, INT32_MAX));
  }
  if (zombies > 0) {
    for (uint32_t i = 0; i < spawners.size; ++i) {
      const ZombieSpawner& spawner = spawners.entries[i];
      QWD_LOG_INFO(kComponent,
                   "Zombie spawner detected! Name:[%s], pid:[%d], zombies spawned:[%d] \n",
                   spawner.name.data(), spawner.pid, spawner.zombies);
    }
  }
  return StatusCode::SUCCESS;
}

}  // namespace SysResMon
