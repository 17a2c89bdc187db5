#pragma once

// Answers one question for the restart policy: did the last N runs of the
// monitored entities together last less than S seconds? Keeps a ring of the
// most recent runs (start and failure time, seconds on the monotonic clock,
// 0 for never set) and evaluates the rule on every recorded failure.

#include <cstdint>
#include <memory>

class Threshold {
 public:
  // Null when an allocation fails (nothing logged) or when numEvents is below
  // 1: the ring's index wraps modulo numEvents, so an empty ring is refused
  // with an assertion line.
  static std::unique_ptr<Threshold> Create(int32_t numEvents, int32_t numSeconds);
  ~Threshold() = default;
  Threshold(const Threshold&) = delete;
  Threshold& operator=(const Threshold&) = delete;

  // The current run started now. The ring does not move.
  void AddStartEvent();
  // The current run failed now; true when the threshold is met. Moves on to
  // the next slot whatever the answer.
  //
  // The newest run always counts (once its start is recorded and numSeconds
  // is above 0), and each older one counts while the runs counted so far
  // stay below numSeconds: met when the numEvents newest runs all have a
  // start and the newest numEvents - 1 lasted less than numSeconds together.
  // With numEvents 1 every failure meets it; with numSeconds <= 0 none does.
  bool AddFailureEvent();
  int32_t GetNumberOfEvents() const { return numEvents_; }
  int32_t GetNumberOfSeconds() const { return numSeconds_; }
  // Forgets every run; the current slot stays where it is.
  void ResetEvents();

 private:
  struct Event {
    uint32_t startTime;    // when the run began, 0 if never
    uint32_t failureTime;  // when it failed, 0 if never
  };

  Threshold(int32_t numEvents, int32_t numSeconds, std::unique_ptr<Event[]> events);

  int32_t numEvents_;                // N, the slots in the ring
  int32_t numSeconds_;               // S, the time budget
  std::unique_ptr<Event[]> events_;  // the ring, numEvents_ slots
  uint32_t index_ = 0;               // slot of the current run
};
