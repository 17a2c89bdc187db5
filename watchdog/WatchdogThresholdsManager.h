#pragma once

// The restart policy. Each time the supervision loop is about to restart all
// entities after a failure it asks for a decision: restart at once, restart
// after a growing delay, or switch to safe mode. Each operational mode has up
// to three policies, each a Threshold with the result it leads to, read from
// the configuration at Init. Module state, used from the supervision thread only.

#include <cstdint>

#include "common/StatusCode.h"

// What a failure leads to. Any other configured value is possible too: results
// compare as unsigned numbers and the larger wins.
enum PolicyResult : uint32_t {
  POLICY_RESULT_NONE = 0,       // policy disabled; restart at once
  POLICY_RESULT_DELAY = 1,      // restart after the delay
  POLICY_RESULT_SAFE_MODE = 2,  // switch to safe mode
};

enum OperationalMode : uint32_t {
  OPERATIONAL_MODE_NORMAL = 0,
  OPERATIONAL_MODE_SAFE = 1,
  OPERATIONAL_MODE_NUM_OF = 2,
};

namespace WatchdogThresholdsManager {

constexpr uint32_t kPoliciesPerMode = 3;

// Reads the six policies and the delay keys, starting from normal mode with
// no violations. A policy is enabled by a non-zero result; enabled policies
// must come first in their mode, since only the first (number enabled) are
// walked. OUT_OF_MEMORY when a threshold cannot be created (also for an
// enabled policy of fewer than one event).
StatusCode Init();

// All entities were started: a new run begins in every policy of the mode.
void AddStartEvent();

// The entities failed: records the failure in the mode's policies in order
// and returns the largest result met, stopping at the first safe-mode result.
// Delay decisions accumulate: sleepSeconds becomes
// min(MaxDelayPeriodSec, violations x DelayTimeIncreaseSec), and an earlier
// violation not yet cleaned up delays this restart even when no policy is met.
PolicyResult AddFailureEvent(int32_t& sleepSeconds);

// All entities are healthy; after ConcurrentCleanupSec of running since the
// last start the delay starts again from DelayTimeIncreaseSec.
void NotifyRunning();

// Clears every threshold and the violations. Switching to the current mode
// is logged as an error and changes nothing; an unknown mode is refused with
// an assertion line, since it would index past the policy table.
void SwitchMode(uint32_t newMode);

// Releases the thresholds of the enabled policies.
void Teardown();

}  // namespace WatchdogThresholdsManager
