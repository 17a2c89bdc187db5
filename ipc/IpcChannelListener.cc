#include "ipc/IpcChannelListener.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "common/Clock.h"
#include "common/Log.h"
#include "common/TimeUtils.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_INFRA_IPC;

// "channel not triggered" stays in the table, but value 0 is never looked up.
constexpr const char* kWaitResultNames[] = {
    "channel not triggered",
    "processed request successfully",
    "channel was triggered",
    "poll returned a disconnection error",
    "poll returned an error (not a disconnection)",
    "Failed processing request",
};

// A descriptor poll skips (at most -2, so never the free slot's -1), and back.
int Muted(int fd) { return -fd - 2; }
// inUseFlags_ of a slot whose peer hung up: it stays muted until removed, so
// that its disconnection is logged once, not at every wait.
constexpr uint8_t kHungUp = 2;

}  // namespace

const char* IpcChannelWaitResultToStr(uint32_t result) {
  if (result - 1u < 5u) return kWaitResultNames[result];
  return "N/A";
}

std::unique_ptr<IpcChannelListener> CreateIpcChannelListener(uint32_t capacity, const char* name) {
  std::unique_ptr<IpcChannelListener> listener(new (std::nothrow) IpcChannelListener());
  if (!listener) {
    QWD_LOG_ERROR(kComponent, "Failed allocating memory for IPC channel listener %s\n", name);
    return nullptr;
  }
  if (!listener->IpcChannelListenerCtor(capacity, name)) return nullptr;
  return listener;
}

bool IpcChannelListener::IpcChannelListenerCtor(uint32_t capacity, const char* name) {
  channels_.reset(new (std::nothrow) IpcChannel*[capacity]());
  // One entry past the slots for the wake descriptor.
  pollEntries_.reset(new (std::nothrow) pollfd[capacity + 1]());
  inUseFlags_.reset(new (std::nothrow) uint8_t[capacity]());
  if (!channels_ || !pollEntries_ || !inUseFlags_) {
    QWD_LOG_ERROR(kComponent,
                  "Failed allocating memory for IPC channels, FDs or in_use array for "
                  "IpcChannelListener %s\n",
                  name);
    return false;
  }
  for (uint32_t slot = 0; slot <= capacity; ++slot) pollEntries_[slot].fd = -1;
  capacity_ = capacity;
  name_ = name;
  return true;
}

int32_t IpcChannelListener::AddChannel(IpcChannel* channel) {
  if (inUse_ == capacity_) {
    QWD_LOG_ERROR(kComponent,
                  "IPC channel listener '%s' exhausted, already listening on %u channels\n", name_,
                  inUse_);
    return -1;
  }
  uint32_t slot = 0;
  while (slot < capacity_ && inUseFlags_[slot] != 0) ++slot;
  if (slot == capacity_) {
    QWD_LOG_ERROR(kComponent,
                  "IPC channel listener '%s' can't find empty channel slot, in use %u, max %u\n",
                  name_, inUse_, capacity_);
    return -1;
  }
  channels_[slot] = channel;
  pollEntries_[slot].fd = channel->GetDescriptor();
  pollEntries_[slot].events = POLLIN;
  inUseFlags_[slot] = 1;
  ++inUse_;
  return static_cast<int32_t>(slot);
}

void IpcChannelListener::RemoveChannel(int32_t slot) {
  if (static_cast<uint32_t>(slot) >= capacity_) {
    // The in-use count is printed as the maximum; log readers know it so.
    QWD_LOG_ERROR(
        kComponent,
        "IPC channel listener '%s' can't remove channel descriptor %d. Max channels: %u\n", name_,
        slot, inUse_);
    return;
  }
  inUseFlags_[slot] = 0;
  pollEntries_[slot].events = 0;
  pollEntries_[slot].fd = -1;
  channels_[slot] = nullptr;
  --inUse_;
}

StatusCode IpcChannelListener::PrepareWait(uint32_t* results) {
  if (!QWD_ASSERT(kComponent, results != nullptr, "results != NULL")) return StatusCode::FAILURE;
  std::memset(results, 0, capacity_ * sizeof(*results));
  if (inUse_ == 0) {
    QWD_LOG_ERROR(kComponent, "Can't wait for zero channels, returning immediately!\n");
    return StatusCode::IRRELEVANT;
  }
  return StatusCode::SUCCESS;
}

StatusCode IpcChannelListener::Wait(int32_t timeoutMsec, uint32_t* results) {
  const StatusCode prepared = PrepareWait(results);
  if (prepared != StatusCode::SUCCESS) return prepared;
  // Removing free slots can drive the count below zero and round it up: never
  // poll or scan past the arrays.
  const uint32_t polled = std::min(inUse_, capacity_);
  const StatusCode status = PollSlots(timeoutMsec, results, polled);
  UnmuteFailedSlots(polled);
  if (status == StatusCode::TIMEOUT) {
    QWD_LOG_ERROR(kComponent, "IPC channel listener '%s' polling timed out.\n", name_);
  }
  if (status != StatusCode::SUCCESS) return status;
  ProcessTriggered(results, polled);
  return StatusCode::SUCCESS;
}

void IpcChannelListener::SetWakeDescriptor(int32_t fd) {
  pollEntries_[capacity_].fd = fd;
  pollEntries_[capacity_].events = POLLIN;
}

StatusCode IpcChannelListener::ServeUntil(int64_t deadlineMsec, uint32_t* results,
                                          bool (*checkNow)(void*), void* context) {
  const StatusCode prepared = PrepareWait(results);
  if (prepared != StatusCode::SUCCESS) return prepared;
  const uint32_t polled = std::min(inUse_, capacity_);
  pollfd& wake = pollEntries_[capacity_];
  bool eventSeen = false;
  for (;;) {
    const int64_t left = deadlineMsec - GetCurrentTimeMsec();
    if (left <= 0) break;
    // Free and muted slots hold negative descriptors, which poll skips.
    const int ready = PollMsec(pollEntries_.get(), capacity_ + 1, static_cast<int>(left));
    if (ready < 0) {
      QWD_LOG_ERROR(kComponent, "IPC channel listener '%s' failed polling. Returned status %d\n",
                    name_, ready);
      UnmuteFailedSlots(polled);
      return StatusCode::FAILURE;
    }
    if (ready == 0) break;
    eventSeen = true;
    const bool requests = ClassifyEvents(results, polled);
    if (requests) ProcessTriggered(results, polled);
    bool checkAtOnce = (wake.revents & POLLIN) != 0;
    if (checkAtOnce) DrainWakeDescriptor();
    wake.revents = 0;
    for (uint32_t slot = 0; slot < polled; ++slot) {
      checkAtOnce |= results[slot] >= IPC_CHANNEL_DISCONNECTED;
    }
    if (checkAtOnce || (requests && checkNow != nullptr && checkNow(context))) {
      UnmuteFailedSlots(polled);
      return StatusCode::SUCCESS;
    }
  }
  UnmuteFailedSlots(polled);
  if (!eventSeen) {
    QWD_LOG_ERROR(kComponent, "IPC channel listener '%s' polling timed out.\n", name_);
    return StatusCode::TIMEOUT;
  }
  return StatusCode::SUCCESS;
}

void IpcChannelListener::DrainWakeDescriptor() {
  // One read, which never blocks on a descriptor poll found readable; what
  // a full buffer leaves makes the next poll return at once and is read then.
  char buffer[512];
  [[maybe_unused]] const ssize_t drained = read(pollEntries_[capacity_].fd, buffer, sizeof(buffer));
}

void IpcChannelListener::UnmuteFailedSlots(uint32_t polled) {
  for (uint32_t slot = 0; slot < polled; ++slot) {
    if (pollEntries_[slot].fd < -1 && inUseFlags_[slot] != kHungUp) {
      pollEntries_[slot].fd = Muted(pollEntries_[slot].fd);
    }
  }
}

void IpcChannelListener::ProcessTriggered(uint32_t* results, uint32_t polled) {
  for (uint32_t slot = 0; slot < polled; ++slot) {
    if (results[slot] != IPC_CHANNEL_TRIGGERED) continue;
    const StatusCode processed = channels_[slot]->ProcessRequest(true);
    if (processed == StatusCode::SUCCESS) {
      results[slot] = IPC_CHANNEL_PROCESSED_REQUEST;
    } else {
      results[slot] = IPC_CHANNEL_FAILED_PROCESSING;
      QWD_LOG_ERROR(kComponent,
                    "IPC channel listener '%s' Failed processing the request after it was "
                    "triggered.Returned status %s(%d)\n",
                    name_, StatusCodeToStr(processed), StatusCodeToInt(processed));
    }
  }
}

StatusCode IpcChannelListener::PollSlots(int32_t timeoutMsec, uint32_t* results, uint32_t polled) {
  const int64_t start = GetCurrentTimeMsec();
  bool eventSeen = false;
  for (;;) {
    const int64_t elapsed = GetCurrentTimeMsec() - start;
    const int32_t left =
        timeoutMsec < 0 ? -1 : static_cast<int32_t>(std::max<int64_t>(0, timeoutMsec - elapsed));
    const int ready = PollMsec(pollEntries_.get(), polled, left);
    if (ready < 0) {
      QWD_LOG_ERROR(kComponent, "IPC channel listener '%s' failed polling. Returned status %d\n",
                    name_, ready);
      return StatusCode::FAILURE;
    }
    if (ready == 0) break;
    eventSeen = true;
    // A request ends the wait; a hang-up or error only mutes its slot (poll
    // skips negative descriptors), since it would end every further poll at
    // once and turn the caller's cycle into a busy loop.
    if (ClassifyEvents(results, polled) || (left < 0 && !AnySlotListening(polled))) break;
  }
  return eventSeen ? StatusCode::SUCCESS : StatusCode::TIMEOUT;
}

bool IpcChannelListener::ClassifyEvents(uint32_t* results, uint32_t polled) {
  bool triggered = false;
  for (uint32_t slot = 0; slot < polled; ++slot) {
    pollfd& entry = pollEntries_[slot];
    if (inUseFlags_[slot] == 0 || entry.revents == 0) continue;
    if (entry.revents == POLLIN) {
      results[slot] = IPC_CHANNEL_TRIGGERED;
      entry.revents = 0;
      triggered = true;
      continue;
    }
    if ((entry.revents & POLLHUP) != 0) {
      results[slot] = IPC_CHANNEL_DISCONNECTED;
      inUseFlags_[slot] = kHungUp;
      QWD_LOG_ERROR(kComponent,
                    "IPC channel listener '%s' polled on channel ID %d for POLLIN, got a "
                    "disconnection\n",
                    name_, static_cast<int>(slot));
    } else {
      results[slot] = IPC_CHANNEL_POLL_ERROR;
      QWD_LOG_ERROR(kComponent,
                    "IPC channel listener '%s' polled on channel ID %d for POLLIN, got %d\n", name_,
                    static_cast<int>(slot), entry.revents);
    }
    entry.fd = Muted(entry.fd);
  }
  return triggered;
}

bool IpcChannelListener::AnySlotListening(uint32_t polled) const {
  for (uint32_t slot = 0; slot < polled; ++slot) {
    if (pollEntries_[slot].fd >= 0) return true;
  }
  return false;
}

IpcChannel* IpcChannelListener::GetChannelByDescriptor(int32_t slot) {
  if (static_cast<uint32_t>(slot) >= capacity_) return nullptr;
  return channels_[slot];
}
