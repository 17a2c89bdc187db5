#include "watchdog/policy/Threshold.h"

#include <new>

#include "common/Log.h"
#include "common/TimeUtils.h"

namespace {
constexpr uint32_t kComponent = LOGGER_COMPONENT_INFRA_THRESHOLD;

uint32_t NowSec() { return static_cast<uint32_t>(GetCurrentTimeInSec()); }
}  // namespace

std::unique_ptr<Threshold> Threshold::Create(int32_t numEvents, int32_t numSeconds) {
  if (!QWD_ASSERT(kComponent, numEvents >= 1, "numEvents >= 1")) return nullptr;
  std::unique_ptr<Event[]> events(new (std::nothrow) Event[numEvents]());
  if (!events) return nullptr;
  return std::unique_ptr<Threshold>(new (std::nothrow)
                                        Threshold(numEvents, numSeconds, std::move(events)));
}

Threshold::Threshold(int32_t numEvents, int32_t numSeconds, std::unique_ptr<Event[]> events)
    : numEvents_(numEvents), numSeconds_(numSeconds), events_(std::move(events)) {}

void Threshold::AddStartEvent() { events_[index_].startTime = NowSec(); }

bool Threshold::AddFailureEvent() {
  events_[index_].failureTime = NowSec();

  // Walk back from the newest run while the runs counted so far stay below
  // the budget. Counting stops at numEvents, where the answer is settled, so
  // the walk never comes round to the newest slot again.
  uint32_t cursor = index_;
  int32_t count = 0;
  int32_t total = 0;
  while (count < numEvents_ && total < numSeconds_ && events_[cursor].startTime != 0) {
    ++count;
    // Unsigned difference, added modulo 2^32: a slot whose start was written
    // after its failure counts as a wrapped duration.
    total = static_cast<int32_t>(static_cast<uint32_t>(total) +
                                 (events_[cursor].failureTime - events_[cursor].startTime));
    cursor = cursor == 0 ? static_cast<uint32_t>(numEvents_) - 1 : cursor - 1;
  }

  index_ = (index_ + 1) % static_cast<uint32_t>(numEvents_);
  return count == numEvents_;
}

void Threshold::ResetEvents() {
  for (int32_t i = 0; i < numEvents_; ++i) events_[i] = Event{0, 0};
}
