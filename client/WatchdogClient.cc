// Connection, status notifications and the heartbeat thread.

#include "client/WatchdogClient.h"

#include <unistd.h>

#include <new>

#include "common/Clock.h"
#include "common/Log.h"
#include "common/StringUtils.h"
#include "ipc/IpcChannel.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_INFRA_IPC;
// The heartbeat thread sleeps in slices this long, so that StopHeartbeat
// never waits for a whole period.
constexpr uint32_t kHeartbeatSliceMsec = 50;

}  // namespace

std::unique_ptr<WatchdogClient> CreateWatchdogClient(WatchdogRole role) {
  const char* socketName = SocketNameOf(role);
  std::unique_ptr<WatchdogClient> client(new (std::nothrow) WatchdogClient());
  if (!client) {
    QWD_LOG_ERROR(kComponent, "Can't allocate memory for the watchdog client of %s\n", socketName);
    return nullptr;
  }
  // Thread-safe: the heartbeat thread and the caller share the channel.
  client->channel_ = CreateIpcChannel(socketName, 0, 0, true);
  if (!client->channel_) return nullptr;
  client->socketName_ = socketName;
  return client;
}

WatchdogClient::~WatchdogClient() {
  StopHeartbeat();
  Disconnect();
}

StatusCode WatchdogClient::Connect() { return channel_->Connect(false); }

void WatchdogClient::Disconnect() { channel_->Disconnect(); }

StatusCode WatchdogClient::NotifyStatus(bool ok, const char* message) {
  StatusNotification note{};
  note.ok = ok ? 1u : 0u;
  note.pid = static_cast<int32_t>(getpid());
  SafeStrCopy(note.socketName, socketName_);
  if (message != nullptr) SafeStrCopy(note.message, message);
  return channel_->SendCommand(CommandId(WatchdogCommand::STATUS_NOTIFY), &note, sizeof(note),
                               nullptr, 0, kReplyTimeoutMsec);
}

StatusCode WatchdogClient::StartHeartbeat(uint32_t periodMsec) {
  if (heartbeatRunning_) {
    QWD_LOG_ERROR(kComponent, "Heartbeat on %s is already running\n", socketName_);
    return StatusCode::FAILURE;
  }
  heartbeatPeriodMsec_ = periodMsec;
  stopHeartbeat_ = false;
  heartbeatStatus_ = StatusCode::SUCCESS;
  const int err = pthread_create(&heartbeatThread_, nullptr, HeartbeatMain, this);
  if (err != 0) {
    QWD_LOG_ERROR(kComponent, "Failed creating the heartbeat thread of %s, got %d\n", socketName_,
                  err);
    return StatusCode::FAILURE;
  }
  heartbeatRunning_ = true;
  return StatusCode::SUCCESS;
}

void WatchdogClient::StopHeartbeat() {
  if (!heartbeatRunning_) return;
  stopHeartbeat_ = true;
  pthread_join(heartbeatThread_, nullptr);
  heartbeatRunning_ = false;
}

StatusCode WatchdogClient::HeartbeatStatus() const { return heartbeatStatus_; }

void* WatchdogClient::HeartbeatMain(void* arg) {
  WatchdogClient* client = static_cast<WatchdogClient*>(arg);
  while (!client->stopHeartbeat_) {
    const StatusCode status = client->NotifyStatus(true, nullptr);
    if (status != StatusCode::SUCCESS) {
      QWD_LOG_ERROR(kComponent, "Heartbeat on %s failed with %s(%d), stopping it\n",
                    client->socketName_, StatusCodeToStr(status), StatusCodeToInt(status));
      client->heartbeatStatus_ = status;
      break;
    }
    for (uint32_t slept = 0; slept < client->heartbeatPeriodMsec_ && !client->stopHeartbeat_;
         slept += kHeartbeatSliceMsec) {
      SleepMsec(kHeartbeatSliceMsec);
    }
  }
  return nullptr;
}
