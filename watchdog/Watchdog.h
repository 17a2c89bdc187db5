#pragma once

// The watchdog's main module: the little process-wide state that signal
// handling needs, the ways out of the process, and the running watchdog.

#include <sys/types.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "common/StatusCode.h"
#include "ipc/IpcChannel.h"
#include "ipc/IpcChannelListener.h"
#include "ipc/WatchdogProtocol.h"
#include "watchdog/Termination.h"
#include "watchdog/entities/MonitoredEntity.h"
#include "watchdog/policy/WatchdogThresholdsManager.h"
#include "watchdog/resources/SysResourcesMonitoring.h"

// Last path component of argv[0], pointing into it (valid for the whole run);
// names the pid file.
extern const char* programName;

// Installs TermSignalHandler for SIGTERM as a one-shot handler: a second
// SIGTERM gets the default action. Returns the sigaction result.
int SetTermSignal();
// Only logs and sets terminationRequested: stopping is left to the loops.
void TermSignalHandler(int signalNumber, siginfo_t* info, void* context);

// Logs, removes the pid file and exits with status. Safe before the logger
// exists (the line is then dropped).
[[noreturn]] void WatchdogExit(int status);
// Removes "<pidFilePath><name>.pid" when pid is at least 1 and pidFilePath is
// set; pidFilePath is a prefix, not a directory.
void RemovePidFile(const char* name, pid_t pid);

// Logs every configuration value at INFO, in key order.
void DumpConfigValues();

// The running watchdog. main owns the one instance; the start-up fills it, the
// supervision loop drives it and the command handlers (run inside the loop's
// listener wait, on the same thread) get it as their context.

class Watchdog {
 public:
  static constexpr uint32_t kSlotsPerRow = 3;
  static constexpr size_t kVersionSize = 32;
  static constexpr size_t kPathSize = 512;
  static constexpr uint32_t kNumCommandHandlers = 9;
  // Commands 1..9, in id order, as every process channel registers them.
  static const std::array<IpcHandler, kNumCommandHandlers> kCommandHandlers;

  Watchdog() = default;
  ~Watchdog();
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  // Everything from CPU affinity to the process objects, in order. A failed
  // step leaves the process through WatchdogExit (-1 before the logger
  // exists, 0 after); on return supervision can begin.
  void Init();
  // The supervision loop. Returns 0 after an orderly termination; every other
  // way out leaves the process (WatchdogExit, or the upgrade's exec).
  int Run();

  // Marks every entity of the current row for a restart without a failure.
  void RestartAllEntities();
  // Asks for another operational mode; it takes effect after the restart.
  void ChangeOperationalMode(uint32_t mode);
  // Reads the memory totals; logs them when forced or after a drop of 4 MB.
  StatusCode CheckSystemMemory(bool force, SysResMon::MemoryInfo& memory);
  void CheckOwnResources();
  // Own resources, memory, log files, zombies and threads, all logged.
  void ResourceReport();
  // The installed version's cleanup.sh; FAILURE only when it could not run
  // or was killed (at its time limit, or by a termination while it ran).
  StatusCode RunCleanupScript();
  // Replaces this process with the new version's control script.
  [[noreturn]] void UpgradeWatchdog();

  static constexpr std::array<IpcHandler, kNumCommandHandlers> MakeCommandHandlers();
  static StatusCode HandleIncreaseLogGeneration(const void* data, size_t dataLen, void* reply,
                                                size_t replySize, size_t* replyLen, void* context);
  static StatusCode HandleSetComponentLogLevel(const void* data, size_t dataLen, void* reply,
                                               size_t replySize, size_t* replyLen, void* context);
  static StatusCode HandleOperationalModeRequest(const void* data, size_t dataLen, void* reply,
                                                 size_t replySize, size_t* replyLen, void* context);
  static StatusCode HandleRestartAll(const void* data, size_t dataLen, void* reply,
                                     size_t replySize, size_t* replyLen, void* context);
  static StatusCode HandleNewestVersion(const void* data, size_t dataLen, void* reply,
                                        size_t replySize, size_t* replyLen, void* context);
  static StatusCode HandleSetAccountId(const void* data, size_t dataLen, void* reply,
                                       size_t replySize, size_t* replyLen, void* context);
  static StatusCode HandleSetMemoryLimit(const void* data, size_t dataLen, void* reply,
                                         size_t replySize, size_t* replyLen, void* context);
  static StatusCode HandleGetPid(const void* data, size_t dataLen, void* reply, size_t replySize,
                                 size_t* replyLen, void* context);
  static StatusCode HandleLoadKernelModule(const void* data, size_t dataLen, void* reply,
                                           size_t replySize, size_t* replyLen, void* context);

 private:
  // One operational mode's entities: slot s runs entities[indices[s]], and
  // index -1 leaves the slot unused. Slot order is the start order.
  struct EntityRow {
    std::array<std::unique_ptr<MonitoredEntity>, kSlotsPerRow> entities;
    std::array<int32_t, kSlotsPerRow> indices{-1, -1, -1};
  };
  enum class WatchEnd { kFailure, kRequestedRestart };

  // Start-up steps that can fail after the logger exists.
  bool MakeVersionDirectory();
  void CreateProcessEntities();
  // The entity in a slot of the current row, or null.
  MonitoredEntity* SlotEntity(uint32_t slot) const;
  // Starts the row in slot order; false (critical) at the first failure or
  // once termination is requested.
  bool StartEntities();
  // Watch cycles until something is wrong.
  WatchEnd Watch();
  // Whether the listener's wait must end for a check now: an entity is no
  // longer running, or termination was requested.
  static bool SomethingToCheck(void* watchdog);
  // SIGCHLD, blocked, read from a signalfd that wakes the listener's wait.
  void WatchChildExits();
  // Removes the channels, stops in reverse order, drops the kernel module
  // and reaps exited children; false when a stop failed.
  bool StopAllEntities();
  // Logs, reports and sleeps one critical error, or exits when retries are
  // used up.
  void HandleCriticalError();
  // Sleeps in short steps, returning early once termination is requested.
  void SleepUnlessTerminated(uint32_t msec);

  std::array<char, kVersionSize> currentVersion_{};  // this watchdog's version
  std::array<char, kVersionSize> newestVersion_{};   // the agent's newest; differs: upgrade
  std::array<char, kPathSize> versionDir_{};         // downloadDir/currentVersion
  std::array<char, 257> agentDir_{};                 // directory of the agent's link
  std::array<char, 65> agentBinary_{};               // file name of the agent's link
  std::array<char, 257> systemExecDir_{};            // directory of the system-exec link
  std::array<char, 65> systemExecBinary_{};          // file name of the system-exec link
  std::array<const char*, 8> normalAgentArgs_{};     // extra arguments, null-terminated
  std::array<const char*, 8> safeAgentArgs_{};       // the same with "--safe-mode"
  std::array<EntityRow, OPERATIONAL_MODE_NUM_OF> entityTable_;  // by operational mode
  std::unique_ptr<IpcChannelListener> listener_;                // waits on every process channel
  int32_t childExitFd_ = -1;  // signalfd of SIGCHLD, the listener's wake descriptor; -1 without
  WatchdogThresholdsManager policy_;  // restart policy; its mode is the row being supervised
  std::array<int32_t, kSlotsPerRow> channelDescriptors_{-1, -1, -1};  // listener slots, by slot
  uint32_t requestedMode_ = OPERATIONAL_MODE_NORMAL;                  // applied after the next stop
  uint32_t stopDelayMs_ = 0;                  // sleep before a requested stop, then cleared
  uint32_t memoryLimitBytes_ = 0;             // least available memory; 0: unchecked
  bool memoryLimitTriggersSafeMode_ = false;  // low memory asks for safe mode
  uint32_t criticalErrorRetry_ = 0;           // consecutive critical errors
  int32_t lastLoggedAvailableKb_ = -1;        // available memory last logged
  int32_t ownHighestRssKb_ = 0;               // own resident size peak reported
  int32_t ownHighestFds_ = 0;                 // own descriptor peak reported
  SysResMon::ProcessFiles ownFiles_;          // own /proc files, held for every watch cycle
  SysResMon::HeldProcFile meminfo_;           // the system's memory totals, held likewise
};
