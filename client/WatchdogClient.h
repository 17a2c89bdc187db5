#pragma once

// The agent's side of the watchdog: what a supervised process links to talk
// back to quillmorWD.
//
// The watchdog launches each of its processes and then waits for it to
// connect to the socket of its role. From then on the process must send an
// OK status notification (its heartbeat, carrying its pid) more often than
// the watchdog's silence limit (20 s for the user agent), and may ask for the
// watchdog's services with one call per command. Every call returns the
// watchdog's reply status, or FAILURE / TIMEOUT when the channel broke.
//
//   std::unique_ptr<WatchdogClient> wd = CreateWatchdogClient(WatchdogRole::USER_AGENT);
//   if (!wd || wd->Connect() != StatusCode::SUCCESS) return 1;
//   wd->StartHeartbeat(2000);                     // a thread sends one every 2 s
//   wd->SetComponentLogLevel(LOGGER_COMPONENT_WATCHDOG, 0);
//   wd->RestartAll(500);                          // everything restarts in 0.5 s
//   while (wd->HeartbeatStatus() == StatusCode::SUCCESS) DoTheAgentsWork();
//
// The client is thread-safe: heartbeats and calls share one channel under its
// lock, one request in flight at a time. It logs under
// LOGGER_COMPONENT_INFRA_IPC through PrintLogLine, that is nowhere unless the
// program installs a logger.

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "common/StatusCode.h"
#include "ipc/WatchdogProtocol.h"

class IpcChannel;

class WatchdogClient {
 public:
  // How long a call waits for the watchdog's reply. The watchdog answers
  // between its checks, which may keep it busy for a few seconds.
  static constexpr int32_t kReplyTimeoutMsec = 10000;
  // The longest failure text a notification carries.
  static constexpr size_t kMaxMessageLength = 127;

  // The client of a role's socket, not yet connected. Null (logged) when the
  // channel cannot be allocated.
  friend std::unique_ptr<WatchdogClient> CreateWatchdogClient(WatchdogRole role);
  // Stops the heartbeat and disconnects.
  ~WatchdogClient();
  WatchdogClient(const WatchdogClient&) = delete;
  WatchdogClient& operator=(const WatchdogClient&) = delete;

  // Connects to the watchdog: 10 attempts a second apart. A process is
  // expected to connect within 20 s of its launch.
  StatusCode Connect();
  void Disconnect();

  // One status notification with getpid(). ok false tells the watchdog that
  // this process failed (message, cut to 127 characters, goes to its log),
  // and the watchdog restarts everything.
  StatusCode NotifyStatus(bool ok, const char* message);
  // A thread that sends an OK notification now and then every periodMsec,
  // until StopHeartbeat or the first failed send. FAILURE when it is
  // already running or the thread cannot be made.
  StatusCode StartHeartbeat(uint32_t periodMsec);
  void StopHeartbeat();
  // SUCCESS while the heartbeats go through; the failed send's status after.
  StatusCode HeartbeatStatus() const;

  // 1: the watchdog's log files start a new generation; the previous one.
  StatusCode IncreaseLogGeneration(uint32_t* previousGeneration);
  // 2: the watchdog logs the component at the level (0 DEBUG .. 5 FATAL).
  StatusCode SetComponentLogLevel(uint32_t component, uint32_t level);
  // 3: 0 normal, 1 safe mode: the watchdog restarts everything in that mode.
  // INVALID_PARAM from 2 on.
  StatusCode RequestOperationalMode(uint32_t mode);
  // 4: everything is stopped after delayMsec and started again, without
  // counting as a failure.
  StatusCode RestartAll(uint32_t delayMsec);
  // 5: a newer version is downloaded under this name (at most 31 characters
  // count); the watchdog upgrades at its next restart of all.
  StatusCode ReportNewestVersion(const char* version);
  // 6: the account id that heads the watchdog's log files.
  StatusCode SetAccountId(const char* accountId);
  // 7: free memory below limitBytes restarts everything (0 switches the
  // check off), into safe mode when triggersSafeMode.
  StatusCode SetMemoryLimit(uint32_t limitBytes, bool triggersSafeMode);
  // 8: the watchdog's pid.
  StatusCode GetWatchdogPid(int32_t* pid);
  // 9: the watchdog loads the agent's kernel module and watches it; the
  // module entity's status (1 running).
  StatusCode LoadKernelModule(int32_t* moduleStatus);

 private:
  WatchdogClient() = default;
  // One command and its 32-bit reply, when reply is not null.
  StatusCode Call(WatchdogCommand command, const void* data, size_t dataLen, U32Reply* reply);
  StatusCode CallWithText(WatchdogCommand command, const char* text);
  static void* HeartbeatMain(void* client);

  std::unique_ptr<IpcChannel> channel_;     // client end of the role's socket, thread-safe
  const char* socketName_ = nullptr;        // the role's socket path, named in every notification
  pthread_t heartbeatThread_{};             // valid while heartbeatRunning_
  bool heartbeatRunning_ = false;           // the thread exists and is not joined yet
  uint32_t heartbeatPeriodMsec_ = 0;        // between two notifications
  std::atomic<bool> stopHeartbeat_{false};  // asks the thread to end
  std::atomic<StatusCode> heartbeatStatus_{StatusCode::SUCCESS};  // the last send's result
};

std::unique_ptr<WatchdogClient> CreateWatchdogClient(WatchdogRole role);
