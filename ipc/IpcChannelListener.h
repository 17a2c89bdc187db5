#pragma once

// Waits on the client connections of several server-side IpcChannels with one
// poll, processes one request on every channel that became readable and
// reports per slot what happened. Channels are not owned. A channel must have
// accepted its connection before it is added (the descriptor is read once);
// one whose connection is replaced must be removed and added again. One
// thread uses a listener; it takes no lock. Lines are logged under
// LOGGER_COMPONENT_INFRA_IPC.

#include <poll.h>

#include <cstdint>
#include <memory>

#include "common/StatusCode.h"
#include "ipc/IpcChannel.h"

// What Wait found on one slot.
enum IpcChannelWaitResult : uint32_t {
  IPC_CHANNEL_NOT_TRIGGERED = 0,
  IPC_CHANNEL_PROCESSED_REQUEST = 1,
  IPC_CHANNEL_TRIGGERED = 2,  // never left after a completed Wait
  IPC_CHANNEL_DISCONNECTED = 3,
  IPC_CHANNEL_POLL_ERROR = 4,
  IPC_CHANNEL_FAILED_PROCESSING = 5,
};

// Text of a result; 0 and every value above 5 give "N/A".
const char* IpcChannelWaitResultToStr(uint32_t result);

class IpcChannelListener {
 public:
  // Null when an allocation fails (logged). name is borrowed, not copied.
  friend std::unique_ptr<IpcChannelListener> CreateIpcChannelListener(uint32_t capacity,
                                                                      const char* name);
  // Leaves the channels alone.
  virtual ~IpcChannelListener() = default;
  IpcChannelListener(const IpcChannelListener&) = delete;
  IpcChannelListener& operator=(const IpcChannelListener&) = delete;

  // Puts the channel in the lowest free slot, polled on its current
  // connection. The slot number, or -1 when the listener is full.
  virtual int32_t AddChannel(IpcChannel* channel);
  // Frees a slot. The slot is not checked for being occupied: removing a free
  // slot still lowers the in-use count.
  virtual void RemoveChannel(int32_t slot);
  // Polls the first in-use-count entries (callers remove and re-add all their
  // channels together, so these are the occupied ones) and processes one
  // request on each readable channel. A hang-up or poll error is reported in
  // its slot but does not end the wait: the other slots are polled for the
  // rest of the time-out (on the installed clock). A slot whose peer hung up
  // is reported (and logged) once and then left out until it is removed. results needs capacity
  // entries, filled by slot. SUCCESS whatever the slots' results; IRRELEVANT
  // without channels; TIMEOUT when nothing happened, FAILURE when the poll
  // fails.
  virtual StatusCode Wait(int32_t timeoutMsec, uint32_t* results);
  // A descriptor whose readiness means "look now" (a signalfd of SIGCHLD, a
  // self-pipe): ServeUntil drains it and returns. -1 for none.
  void SetWakeDescriptor(int32_t fd);
  // Serves requests until the deadline (monotonic ms on the installed clock),
  // returning early when there is reason to look at once: a hang-up, a poll
  // error or a failed request on a slot, the wake descriptor, or checkNow
  // (called after each batch of requests) saying so. A plain request is
  // answered and the wait goes on. results needs capacity entries; a slot
  // keeps its last result. TIMEOUT (logged) only when the whole window saw
  // nothing; otherwise as Wait.
  StatusCode ServeUntil(int64_t deadlineMsec, uint32_t* results, bool (*checkNow)(void*),
                        void* context);
  // The channel in a slot (null when free or out of range).
  virtual IpcChannel* GetChannelByDescriptor(int32_t slot);

 private:
  IpcChannelListener() = default;
  bool IpcChannelListenerCtor(uint32_t capacity, const char* name);
  // Polls the first `polled` entries until a request arrives or the time-out
  // has run out; TIMEOUT (not logged) when nothing at all happened.
  StatusCode PollSlots(int32_t timeoutMsec, uint32_t* results, uint32_t polled);
  // Marks triggered, disconnected and failing slots among the first `polled`,
  // muting the last two (negative descriptor) for the rest of the wait. True when
  // a request is waiting.
  bool ClassifyEvents(uint32_t* results, uint32_t polled);
  // Clears the results: SUCCESS to go on, FAILURE without results, IRRELEVANT
  // (logged) without channels.
  StatusCode PrepareWait(uint32_t* results);
  // Runs the request of every triggered slot: processed or failed.
  void ProcessTriggered(uint32_t* results, uint32_t polled);
  // Slots muted for a poll error listen again; hung-up ones stay muted.
  void UnmuteFailedSlots(uint32_t polled);
  void DrainWakeDescriptor();
  // Whether any of the first `polled` entries is still polled.
  bool AnySlotListening(uint32_t polled) const;

  uint32_t capacity_ = 0;                    // number of slots, fixed at creation
  uint32_t inUse_ = 0;                       // occupied slots
  std::unique_ptr<IpcChannel*[]> channels_;  // by slot, not owned
  std::unique_ptr<pollfd[]> pollEntries_;  // by slot, descriptor -1 when free; then the wake entry
  std::unique_ptr<uint8_t[]> inUseFlags_;  // by slot, 1 when occupied, 2 when hung up
  const char* name_ = nullptr;             // for log lines, borrowed
};

std::unique_ptr<IpcChannelListener> CreateIpcChannelListener(uint32_t capacity, const char* name);
