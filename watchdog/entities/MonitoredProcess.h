#pragma once

// A user-space program of the agent as a monitored entity: launched with fork
// and execve, watched through the heartbeats it sends on its own IPC server
// channel and through /proc, and stopped with SIGTERM, then SIGKILL every 50
// seconds for up to 600 seconds. The entity owns its channel; the child
// connects back to it, sends status notifications (command 0) and calls the
// watchdog's handlers (commands 1..N).

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "ipc/IpcChannel.h"
#include "ipc/WatchdogProtocol.h"
#include "watchdog/entities/MonitoredEntity.h"
#include "watchdog/resources/ProcessFiles.h"

class MonitoredProcess final : public MonitoredEntity {
 public:
  // Caller arguments that reach the child; further ones are dropped.
  static constexpr size_t kMaxExtraArgs = 14;

  // dirPath null or empty: the process is not launched by the watchdog, only
  // watched (its pid comes from its heartbeats). extraArgs is a null-terminated
  // array or null; its strings must outlive the entity. handlers[i] serves
  // command i + 1 and gets handlerContext. socketName null: no channel. Null
  // (logged) on failure.
  friend std::unique_ptr<MonitoredProcess> CreateMonitoredProcess(
      const char* dirPath, const char* binaryName, const char* const* extraArgs,
      const char* libPath, int32_t maxLastSeenMsec, bool setLdLibPath, bool checkLastSeen,
      const char* socketName, uint32_t cmdDataSize, uint32_t replySize, const IpcHandler* handlers,
      int32_t handlerCount, uint32_t connectTimeoutMsec, void* handlerContext);
  // Logs its destruction and destroys the channel; the child is left alone.
  ~MonitoredProcess() override;

  // Replaces a stale socket, listens, forks and execs the binary with the
  // watchdog's environment, then waits connectTimeoutMsec for the child to
  // connect. After a failed wait the child's pid is kept, so Stop kills it.
  StatusCode Start() override;
  // Closes the channel, sends SIGTERM and waits up to 600 one-second rounds,
  // sending SIGKILL every 50. NOT_RUNNING once the pid is gone (a zombie
  // counts as gone), FAILED when it can't be signalled or outlives the
  // rounds; INVALID_PARAM without a pid. Once termination is requested,
  // SIGKILL follows at once and the wait is short. Then whatever is left of
  // the launched child's process group is killed.
  StatusCode Stop() override;
  // UNKNOWN without a pid or with a cmdline that doesn't name the binary;
  // FAILED after maxLastSeenMsec without heartbeats (when checked). Leaves
  // RESTART alone.
  void CheckStatus() override;
  const char* GetName() override;
  IpcChannel* GetIpcChannel() override;
  // Records new memory and descriptor peaks of the process.
  void CheckResources() override;
  // A heartbeat: refreshes the last-seen time and adopts a pid that differs
  // from the known one. -1 is stored without refreshing (the next check then
  // restarts everything). Pids that a stop must never signal (0, other
  // negatives, 1, the watchdog's own, and any process that does not descend
  // from the watchdog) are refused with INVALID_PARAM and change nothing.
  virtual StatusCode UpdatePid(int32_t pid);

  int32_t GetPid() const { return pid_; }

 private:
  MonitoredProcess() : MonitoredEntity(MonitoredEntityType::PROCESS) {}
  // Takes the channel with its command handlers registered.
  void MonitoredProcessCtor(std::unique_ptr<IpcChannel> channel, const char* dirPath,
                            const char* binaryName, const char* const* extraArgs,
                            int32_t maxLastSeenMsec, bool setLdLibPath, bool checkLastSeen,
                            uint32_t connectTimeoutMsec);
  // The pid file's path into path; false when there is to be none.
  bool PidFilePath(char (&path)[512]) const;
  StatusCode WriteOwnPidFile() const;
  void RemoveOwnPidFile() const;
  // The first argument of the command line into text, as CheckStatus reads
  // it: the bytes read, 0 when empty, -1 when unreadable (logged when the
  // file cannot be opened).
  ssize_t ReadCommandLine(char* text, size_t size);
  // One waitpid of the escalation; true once waitpid is not to be called again.
  bool ReapChild();
  // Sleeps until the pid has exited, at most ceilingMsec; silent.
  void AwaitExit(uint32_t ceilingMsec) const;
  bool HasExited() const;
  // Whether "<proc>/<pid>" is gone or a zombie.
  bool IsProcessGone() const;
  // The escalation above (SIGTERM, then SIGKILL every 50 rounds) on pid_.
  StatusCode StopPid();
  // SIGKILLs at short intervals once termination is requested; true once the
  // pid is gone, false when it outlived them.
  bool KillForTermination();
  // Every end of Stop: forget the pid, store the status.
  StatusCode FinishStop(MonitoredEntityStatus status, StatusCode result);

  int32_t pid_ = -1;                             // the child's pid, -1 when not running
  int32_t launchedPid_ = -1;                     // the forked child, leader of its group; -1: none
  std::unique_ptr<IpcChannel> ipcChannel_;       // server channel on its socket, or null
  int32_t maxLastSeenMsec_ = 0;                  // longest silence allowed between heartbeats
  int64_t lastSeenMsec_ = 0;                     // last heartbeat or launch, monotonic
  uint32_t connectTimeoutMsec_ = 0;              // how long Start waits for the connection
  bool setLdLibPath_ = false;                    // carried, never applied
  bool checkLastSeen_ = false;                   // whether CheckStatus enforces maxLastSeenMsec_
  std::array<char, 256> dirPath_{};              // directory of the binary; empty: not launched
  std::array<char, 64> binaryName_{};            // binary file name; the entity's name
  std::array<char*, kMaxExtraArgs + 2> argv_{};  // fullPath_, the extra arguments, null
  std::array<char, 321> fullPath_{};             // dirPath_/binaryName_, or empty
  int32_t maxRssKb_ = 0;                         // peak resident size seen by CheckResources
  int32_t maxOpenFds_ = 0;                       // peak open descriptors seen by CheckResources
  SysResMon::ProcessFiles files_;                // /proc files of pid_, opened wherever pid_ is set
};

std::unique_ptr<MonitoredProcess> CreateMonitoredProcess(
    const char* dirPath, const char* binaryName, const char* const* extraArgs, const char* libPath,
    int32_t maxLastSeenMsec, bool setLdLibPath, bool checkLastSeen, const char* socketName,
    uint32_t cmdDataSize, uint32_t replySize, const IpcHandler* handlers, int32_t handlerCount,
    uint32_t connectTimeoutMsec, void* handlerContext = nullptr);

// The status-notify handler (command 0); context is the MonitoredProcess.
// Accepts only notifications naming one of the two watchdog sockets.
StatusCode MonitoredProcessNotifyHandler(const void* data, size_t dataLen, void* reply,
                                         size_t replySize, size_t* replyLen, void* context);
