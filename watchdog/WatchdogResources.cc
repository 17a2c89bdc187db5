// What the watchdog reports of its own and the system's resources.

#include <cstdio>

#include "common/Log.h"
#include "common/ProcessUtils.h"
#include "watchdog/Config.h"
#include "watchdog/Watchdog.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_WATCHDOG;
// Smaller drops of the available memory are not worth a line.
constexpr int32_t kMemoryDropLogKb = 4096;

}  // namespace

StatusCode Watchdog::CheckSystemMemory(bool force, SysResMon::MemoryInfo& memory) {
  const StatusCode status = SysResMon::ReadMeminfo(memory, &meminfo_);
  if (status != StatusCode::SUCCESS) {
    QWD_LOG_WARN(kComponent, "Can't get system memory consumption, ret %d\n",
                 StatusCodeToInt(status));
    return status;
  }
  const int32_t available = static_cast<int32_t>(memory.availableKb);
  if (!force && lastLoggedAvailableKb_ != -1 &&
      available > lastLoggedAvailableKb_ - kMemoryDropLogKb) {
    return StatusCode::SUCCESS;
  }
  lastLoggedAvailableKb_ = available;
  QWD_LOG_INFO(kComponent,
               "SYSTEM MEM: %d Kb total, %d Kb free, %d Kb available, %d Kb buffers, %d cached\n",
               static_cast<int>(memory.totalKb), static_cast<int>(memory.freeKb), available,
               static_cast<int>(memory.buffersKb), static_cast<int>(memory.cachedKb));
  return StatusCode::SUCCESS;
}

void Watchdog::CheckOwnResources() {
  if (ownFiles_.Pid() != GetCachedPid()) ownFiles_.Open(GetCachedPid());
  SysResMon::CheckProcessResConsumption(nullptr, ownFiles_, SysResMon::kMemoryStepKb,
                                        ownHighestRssKb_, ownHighestFds_);
}

void Watchdog::ResourceReport() {
  CheckOwnResources();
  SysResMon::MemoryInfo memory{};
  CheckSystemMemory(true, memory);
  int32_t logFiles = 0;
  if (SysResMon::CountFilesInDirectory(Config::GetStrValue(CFG_WD_LOG_DIR), &logFiles) ==
      StatusCode::SUCCESS) {
    QWD_LOG_INFO(kComponent, "Number of quillmor log files: [%d]", logFiles);
  }
  int32_t zombies = 0;
  int32_t threads = 0;
  if (SysResMon::MonitorZombiesAndThreads(&zombies, &threads) != StatusCode::SUCCESS) {
    QWD_LOG_ERROR(kComponent, "SysResMon_MonitorZombiesAndThreads failed! \n");
    return;
  }
  QWD_LOG_INFO(kComponent, "system-wide threads count = [%d] \n", threads);
  if (zombies > 0) {
    QWD_LOG_INFO(kComponent, "Zombie processes detected. Zombies count: [%d] \n", zombies);
  }
}
