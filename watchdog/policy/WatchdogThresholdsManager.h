#pragma once

// The restart policy. Each time the supervision loop is about to restart all
// entities after a failure it asks for a decision: restart at once, restart
// after a growing delay, or switch to safe mode. Each operational mode has up
// to three policies, each a Threshold with the result it leads to, read from
// the configuration at Init.

#include <cstdint>
#include <memory>

#include "common/StatusCode.h"
#include "watchdog/policy/Threshold.h"

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

// The restart policy of one watchdog: the six policies, the mode whose
// policies apply and the run of delay decisions. The Watchdog owns the one
// instance; it is used from the supervision thread only.
class WatchdogThresholdsManager {
 public:
  static constexpr uint32_t kPoliciesPerMode = 3;

  WatchdogThresholdsManager() = default;
  WatchdogThresholdsManager(const WatchdogThresholdsManager&) = delete;
  WatchdogThresholdsManager& operator=(const WatchdogThresholdsManager&) = delete;

  // Reads the six policies and the delay keys, starting from normal mode with
  // no violations. A policy is enabled by a non-zero result; enabled policies
  // must come first in their mode, since only the first (number enabled) are
  // walked. A policy whose threshold cannot be created (fewer than one event,
  // or no memory) is disabled with an ERROR naming it; the others stay in
  // force. Always SUCCESS.
  StatusCode Init();

  // All entities were started: a new run begins in every policy of the mode.
  void AddStartEvent();

  // The entities failed: records the failure in the mode's policies in order
  // and returns the largest result met, stopping at the first safe-mode
  // result. Delay decisions accumulate: sleepSeconds becomes
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

  // The mode whose policies apply, and whose entities run.
  uint32_t GetCurrentMode() const { return currentMode_; }

  // Releases the thresholds of the enabled policies.
  void Teardown();

 private:
  struct Policy {
    std::unique_ptr<Threshold> threshold;  // null while the policy is disabled
    uint32_t result = POLICY_RESULT_NONE;  // what meeting it leads to; 0 disables it
  };

  // Policy i of the current mode, asserted to exist.
  Threshold* WalkedThreshold(uint32_t i);
  void ResetAllThresholds();

  Policy policies_[OPERATIONAL_MODE_NUM_OF][kPoliciesPerMode];  // policy i of mode m
  uint32_t policyCounts_[OPERATIONAL_MODE_NUM_OF] = {};         // enabled policies per mode
  uint32_t currentMode_ = OPERATIONAL_MODE_NORMAL;              // mode whose policies apply
  int32_t delayIncreaseSec_ = 0;                                // DelayTimeIncreaseSec
  int32_t maxDelaySec_ = 0;                                     // MaxDelayPeriodSec
  uint32_t cleanupSec_ = 0;                                     // ConcurrentCleanupSec
  uint32_t lastStartTime_ = 0;                                  // seconds, at the last start
  uint32_t concurrentViolations_ = 0;                           // delays since the last clean-up
};
