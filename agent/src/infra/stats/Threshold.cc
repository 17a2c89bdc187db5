#include "agent/src/infra/stats/Threshold.h"

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

  // Keep the exits and their order as they are: the restart policy's worked
  // cases depend on them. The walk may come round to the newest slot again
  // after a full turn; the count test ends it then, after numEvents + 1 steps.
  uint32_t cursor = index_;
  int32_t count = 0;
  int32_t total = 0;
  bool met = false;
  for (;;) {
    if (count > numEvents_) {
      met = true;
      break;
    }
    const Event& event = events_[cursor];
    if (total >= numSeconds_ || event.startTime == 0) {
      met = count >= numEvents_;
      break;
    }
    ++count;
    // Unsigned difference, added modulo 2^32: a slot whose start was written
    // after its failure counts as a wrapped duration, as it always has.
    total =
        static_cast<int32_t>(static_cast<uint32_t>(total) + (event.failureTime - event.startTime));
    cursor = cursor == 0 ? static_cast<uint32_t>(numEvents_) - 1 : cursor - 1;
  }

  index_ = (index_ + 1) % static_cast<uint32_t>(numEvents_);
  return met;
}

void Threshold::ResetEvents() {
  for (int32_t i = 0; i < numEvents_; ++i) events_[i] = Event{0, 0};
}
