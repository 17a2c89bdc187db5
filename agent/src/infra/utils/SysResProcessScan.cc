// The scans over every process under the root: the process count, the list
// by resident size, and zombies with threads.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "agent/src/infra/utils/ProcDir.h"
#include "agent/src/infra/utils/SysResourcesMonitoring.h"
#include "common/Log.h"
#include "common/ProcRoot.h"

namespace SysResMon {

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_INFRA_UTILS;

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
