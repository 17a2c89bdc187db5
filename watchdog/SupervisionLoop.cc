// The supervision loop: start every entity of the operational mode, watch
// them every two seconds, and on any fault stop them all, clean up and apply
// the restart policy before the next pass. A single entity is never
// restarted alone.

#include <sys/signalfd.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>

#include <cstring>

#include "common/Clock.h"
#include "common/Log.h"
#include "common/ProcessTree.h"
#include "common/ProcessUtils.h"
#include "common/TimeUtils.h"
#include "watchdog/Config.h"
#include "watchdog/Watchdog.h"
#include "watchdog/entities/MonitoredModule.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_WATCHDOG;
constexpr int32_t kWatchCycleMsec = 2000;
constexpr int32_t kLowMemoryProcessesLogged = 20;
// How late a termination request may be noticed during a long sleep.
constexpr uint32_t kTerminationCheckMsec = 50;

// After the stops, no process the watchdog started may live on (a grandchild,
// a daemon that left its group): every descendant left gets SIGKILL, and
// every child that ended (the watchdog inherits orphans as their subreaper)
// is reaped.
void EndDescendants() {
  KillDescendants(GetCachedPid(), 0);
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
}

}  // namespace

int Watchdog::Run() {
  for (;;) {
    channelDescriptors_.fill(-1);
    if (terminationRequested != 0) {
      listener_.reset();
      policy_.Teardown();
      Config::Teardown();
      RemovePidFile(programName, GetCachedPid());
      return 0;
    }
    bool critical = !StartEntities();
    PolicyResult policy = POLICY_RESULT_NONE;
    int32_t delaySec = 0;
    if (!critical) {
      policy_.AddStartEvent();
      QWD_LOG_DEBUG(kComponent, "All monitored entities started successfully\n");
      if (Watch() == WatchEnd::kFailure) {
        policy = policy_.AddFailureEvent(delaySec);
        ResourceReport();
      }
    }
    if (!StopAllEntities()) critical = true;
    const bool cleanupFailed = RunCleanupScript() != StatusCode::SUCCESS;
    // A termination ends the watchdog here even when it cut the cleanup short.
    if (terminationRequested != 0) {
      QWD_LOG_ERROR(kComponent, "Termination signal received! exit...\n");
      WatchdogExit(0);
    }
    if (cleanupFailed || critical) {
      HandleCriticalError();
    } else {
      criticalErrorRetry_ = 0;
    }
    if (std::memcmp(newestVersion_.data(), currentVersion_.data(), kVersionSize) != 0) {
      UpgradeWatchdog();
    }
    if (policy == POLICY_RESULT_DELAY) {
      SleepUnlessTerminated(static_cast<uint32_t>(delaySec) * 1000u);
    } else if (policy == POLICY_RESULT_SAFE_MODE) {
      requestedMode_ = OPERATIONAL_MODE_SAFE;
    }
    if (requestedMode_ != policy_.GetCurrentMode()) {
      QWD_LOG_INFO(kComponent, "Switching operational mode %d -> %d after current mode cleanup\n",
                   static_cast<int>(policy_.GetCurrentMode()), static_cast<int>(requestedMode_));
      ResourceReport();
      policy_.SwitchMode(requestedMode_);
    }
  }
}

bool Watchdog::SomethingToCheck(void* context) {
  const Watchdog* watchdog = static_cast<const Watchdog*>(context);
  if (terminationRequested != 0) return true;
  for (uint32_t slot = 0; slot < kSlotsPerRow; ++slot) {
    MonitoredEntity* entity = watchdog->SlotEntity(slot);
    if (entity != nullptr && entity->GetStatus() != MonitoredEntityStatus::RUNNING) return true;
  }
  return false;
}

void Watchdog::WatchChildExits() {
  // Blocked, SIGCHLD never cuts a poll short with EINTR (which the wait takes
  // for a failure); its signalfd makes the poll itself return. Children start
  // with an empty mask whatever the watchdog blocks.
  sigset_t childExit;
  sigemptyset(&childExit);
  sigaddset(&childExit, SIGCHLD);
  sigprocmask(SIG_BLOCK, &childExit, nullptr);
  childExitFd_ = signalfd(-1, &childExit, SFD_NONBLOCK | SFD_CLOEXEC);
  if (childExitFd_ < 0) {
    QWD_LOG_WARN(kComponent,
                 "No signalfd for SIGCHLD, errno %s(%d): exits are seen at the checks\n",
                 std::strerror(errno), errno);
  }
  listener_->SetWakeDescriptor(childExitFd_);
}

MonitoredEntity* Watchdog::SlotEntity(uint32_t slot) const {
  const EntityRow& row = entityTable_[policy_.GetCurrentMode()];
  const int32_t index = row.indices[slot];
  return index < 0 ? nullptr : row.entities[static_cast<uint32_t>(index)].get();
}

bool Watchdog::StartEntities() {
  for (uint32_t slot = 0; slot < kSlotsPerRow; ++slot) {
    MonitoredEntity* entity = SlotEntity(slot);
    if (entity == nullptr) continue;
    // A start waits up to 20 s for its connection: none begins once
    // termination is requested.
    if (terminationRequested != 0) return false;
    if (entity->Start() != StatusCode::SUCCESS) {
      QWD_LOG_ERROR(kComponent, "Failed starting entity '%s'\n", entity->GetName());
      return false;
    }
    IpcChannel* channel = entity->GetIpcChannel();
    if (channel == nullptr) continue;
    channelDescriptors_[slot] = listener_->AddChannel(channel);
    QWD_LOG_DEBUG(kComponent,
                  "Added '%s' IPC server to the listener to be tracked. Channel descriptor: %d\n",
                  channel->GetChannelId(), channelDescriptors_[slot]);
  }
  return true;
}

Watchdog::WatchEnd Watchdog::Watch() {
  for (;;) {
    CheckOwnResources();
    SysResMon::MemoryInfo memory{};
    if (CheckSystemMemory(false, memory) == StatusCode::SUCCESS && memoryLimitBytes_ != 0 &&
        memory.availableKb * 1024u < memoryLimitBytes_) {
      QWD_LOG_ERROR(
          kComponent, "Available Free System RAM is only %dKb, when the limit is %zdKb!\n",
          static_cast<int>(memory.availableKb), static_cast<ssize_t>(memoryLimitBytes_ / 1024u));
      if (memoryLimitTriggersSafeMode_) ChangeOperationalMode(OPERATIONAL_MODE_SAFE);
      SysResMon::LogProcessesMemConsumption(kLowMemoryProcessesLogged);
    }
    uint32_t results[2] = {};
    // One check per cycle, on a fixed deadline: plain heartbeats are answered
    // on the way, and whatever may have changed a status (a child's exit, a
    // hang-up, a command) cuts the wait short so that it is seen at once.
    const StatusCode wait = listener_->ServeUntil(GetCurrentTimeMsec() + kWatchCycleMsec, results,
                                                  &Watchdog::SomethingToCheck, this);
    if (wait != StatusCode::SUCCESS && wait != StatusCode::TIMEOUT) {
      QWD_LOG_ERROR(kComponent, "Listener wait returned %s(%d). Restarting all entities\n",
                    StatusCodeToStr(wait), StatusCodeToInt(wait));
      return WatchEnd::kFailure;
    }
    if (terminationRequested != 0) return WatchEnd::kFailure;
    for (uint32_t slot = 0; slot < kSlotsPerRow; ++slot) {
      const int32_t descriptor = channelDescriptors_[slot];
      MonitoredEntity* entity = SlotEntity(slot);
      if (descriptor < 0 || descriptor >= 2 || entity == nullptr ||
          results[descriptor] < IPC_CHANNEL_TRIGGERED) {
        continue;
      }
      QWD_LOG_ERROR(kComponent, "%s's IPC server wait returned '%s'(%d). Restarting all entities\n",
                    entity->GetName(), IpcChannelWaitResultToStr(results[descriptor]),
                    static_cast<int>(results[descriptor]));
    }
    for (uint32_t slot = 0; slot < kSlotsPerRow; ++slot) {
      if (MonitoredEntity* entity = SlotEntity(slot)) entity->CheckStatus();
    }
    bool allRunning = true;
    bool failure = true;
    for (uint32_t slot = 0; slot < kSlotsPerRow; ++slot) {
      MonitoredEntity* entity = SlotEntity(slot);
      if (entity == nullptr) continue;
      const MonitoredEntityStatus status = entity->GetStatus();
      if (status == MonitoredEntityStatus::RUNNING) {
        entity->CheckResources();
        continue;
      }
      // One entity asked to restart makes the whole stop a requested one.
      if (status == MonitoredEntityStatus::RESTART) failure = false;
      QWD_LOG_INFO(kComponent, "Entity '%s' status is %s(%d). Restarting all entities!\n",
                   entity->GetName(), MonitoredEntityStatusToStr(status), static_cast<int>(status));
      allRunning = false;
    }
    if (allRunning) {
      policy_.NotifyRunning();
      continue;
    }
    if (failure) return WatchEnd::kFailure;
    if (stopDelayMs_ != 0) {
      QWD_LOG_INFO(kComponent, "Going to sleep for %d msecs before stopping entities\n",
                   static_cast<int>(stopDelayMs_));
      SleepUnlessTerminated(stopDelayMs_);
      stopDelayMs_ = 0;
    }
    return WatchEnd::kRequestedRestart;
  }
}

bool Watchdog::StopAllEntities() {
  for (uint32_t slot = 0; slot < kSlotsPerRow; ++slot) {
    if (channelDescriptors_[slot] == -1) continue;
    QWD_LOG_DEBUG(kComponent, "Removing channel no. %d from the IPC channel listener\n",
                  channelDescriptors_[slot]);
    listener_->RemoveChannel(channelDescriptors_[slot]);
  }
  bool stopped = true;
  for (uint32_t slot = kSlotsPerRow; slot-- > 0;) {
    MonitoredEntity* entity = SlotEntity(slot);
    if (entity == nullptr) continue;
    const StatusCode status = entity->Stop();
    if (status != StatusCode::SUCCESS && status != StatusCode::INVALID_PARAM) {
      QWD_LOG_ERROR(kComponent, "Failed stopping entity '%s'\n", entity->GetName());
      stopped = false;
    }
  }
  // The agent asks for its kernel module again after every restart.
  if (SlotEntity(0) != nullptr) {
    EntityRow& normal = entityTable_[OPERATIONAL_MODE_NORMAL];
    normal.entities[0].reset();
    normal.indices[0] = -1;
  }
  EndDescendants();
  return stopped;
}

void Watchdog::HandleCriticalError() {
  const uint32_t sleepSec =
      static_cast<uint32_t>(Config::GetIntValue(CFG_SLEEP_ON_CRITICAL_ERROR_SEC));
  const uint32_t retries = static_cast<uint32_t>(Config::GetIntValue(CFG_CRITICAL_ERROR_RETRIES));
  QWD_LOG_ERROR(kComponent, "WatchDog encountered critical error! going to sleep for %u seconds\n",
                sleepSec);
  QWD_LOG_ERROR(kComponent, "currently on retry %u of %u\n", criticalErrorRetry_, retries);
  ResourceReport();
  if (criticalErrorRetry_ >= retries) WatchdogExit(0);
  SleepUnlessTerminated(sleepSec * 1000u);
  ++criticalErrorRetry_;
}

void Watchdog::SleepUnlessTerminated(uint32_t msec) {
  while (msec > 0 && terminationRequested == 0) {
    const uint32_t step = msec < kTerminationCheckMsec ? msec : kTerminationCheckMsec;
    SleepMsec(step);
    msec -= step;
  }
}

void Watchdog::RestartAllEntities() {
  for (uint32_t slot = 0; slot < kSlotsPerRow; ++slot) {
    MonitoredEntity* entity = SlotEntity(slot);
    if (entity == nullptr) continue;
    entity->SetStatus(MonitoredEntityStatus::RESTART);
    QWD_LOG_INFO(kComponent, "Entity: %s status set to: %s[%d]", entity->GetName(),
                 MonitoredEntityStatusToStr(MonitoredEntityStatus::RESTART),
                 static_cast<int>(MonitoredEntityStatus::RESTART));
  }
}

void Watchdog::ChangeOperationalMode(uint32_t mode) {
  if (requestedMode_ == mode) {
    QWD_LOG_INFO(
        kComponent,
        "New operation mode is the same as the current one. Skipping entities restart. \n");
    return;
  }
  requestedMode_ = mode;
  QWD_LOG_INFO(kComponent, "Changing operational mode %d -> %d\n",
               static_cast<int>(policy_.GetCurrentMode()), static_cast<int>(mode));
  RestartAllEntities();
}
