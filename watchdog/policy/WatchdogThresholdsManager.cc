#include "watchdog/policy/WatchdogThresholdsManager.h"

#include <algorithm>
#include <cstddef>
#include <memory>

#include "common/Log.h"
#include "common/TimeUtils.h"
#include "watchdog/Config.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_WATCHDOG;

// The configuration keys of one policy.
struct PolicyKeys {
  uint32_t numEvents;
  uint32_t durationSec;
  uint32_t result;
};

constexpr PolicyKeys
    kPolicyKeys[OPERATIONAL_MODE_NUM_OF][WatchdogThresholdsManager::kPoliciesPerMode] = {
        {{CFG_NORMAL1_NUM_EVENTS, CFG_NORMAL1_DURATION_SEC, CFG_NORMAL1_RESULT},
         {CFG_NORMAL2_NUM_EVENTS, CFG_NORMAL2_DURATION_SEC, CFG_NORMAL2_RESULT},
         {CFG_NORMAL3_NUM_EVENTS, CFG_NORMAL3_DURATION_SEC, CFG_NORMAL3_RESULT}},
        {{CFG_SAFE1_NUM_EVENTS, CFG_SAFE1_DURATION_SEC, CFG_SAFE1_RESULT},
         {CFG_SAFE2_NUM_EVENTS, CFG_SAFE2_DURATION_SEC, CFG_SAFE2_RESULT},
         {CFG_SAFE3_NUM_EVENTS, CFG_SAFE3_DURATION_SEC, CFG_SAFE3_RESULT}},
};

uint32_t NowSec() { return static_cast<uint32_t>(GetCurrentTimeInSec()); }

}  // namespace

// A disabled policy ahead of an enabled one leaves a null inside the walked
// range; it is reported and then skipped. A policy disabled at load was named
// then and is skipped quietly.
Threshold* WatchdogThresholdsManager::WalkedThreshold(uint32_t i) {
  const Policy& policy = policies_[currentMode_][i];
  Threshold* threshold = policy.threshold.get();
  if (threshold == nullptr && policy.result != POLICY_RESULT_NONE) return nullptr;
  QWD_ASSERT(kComponent, threshold != nullptr, "NULL != policies[g_currentMode][i].threshold");
  return threshold;
}

void WatchdogThresholdsManager::ResetAllThresholds() {
  for (auto& mode : policies_) {
    for (Policy& policy : mode) {
      if (policy.threshold) policy.threshold->ResetEvents();
    }
  }
}

StatusCode WatchdogThresholdsManager::Init() {
  currentMode_ = OPERATIONAL_MODE_NORMAL;
  concurrentViolations_ = 0;
  lastStartTime_ = 0;
  for (uint32_t& count : policyCounts_) count = 0;
  delayIncreaseSec_ = Config::GetIntValue(CFG_DELAY_TIME_INCREASE_SEC);
  maxDelaySec_ = Config::GetIntValue(CFG_MAX_DELAY_PERIOD_SEC);
  cleanupSec_ = static_cast<uint32_t>(Config::GetIntValue(CFG_CONCURRENT_CLEANUP_SEC));

  for (uint32_t mode = 0; mode < OPERATIONAL_MODE_NUM_OF; ++mode) {
    for (uint32_t i = 0; i < kPoliciesPerMode; ++i) {
      const PolicyKeys& keys = kPolicyKeys[mode][i];
      Policy& policy = policies_[mode][i];
      policy = Policy{nullptr, static_cast<uint32_t>(Config::GetIntValue(keys.result))};
      if (policy.result == POLICY_RESULT_NONE) continue;
      policy.threshold = Threshold::Create(Config::GetIntValue(keys.numEvents),
                                           Config::GetIntValue(keys.durationSec));
      if (!policy.threshold) {
        // One bad row must not take the others with it: it alone is disabled
        // (it keeps its place in the walk, with no threshold to meet).
        QWD_LOG_ERROR(kComponent, "Failed to create watchdog threshold \n");
        QWD_LOG_ERROR(kComponent, "Policy disabled: '%s' = %d, '%s' = %d make no threshold\n",
                      Config::GetName(keys.numEvents), Config::GetIntValue(keys.numEvents),
                      Config::GetName(keys.durationSec), Config::GetIntValue(keys.durationSec));
      }
    }
  }
  for (uint32_t mode = 0; mode < OPERATIONAL_MODE_NUM_OF; ++mode) {
    for (const Policy& policy : policies_[mode]) {
      if (policy.result != POLICY_RESULT_NONE) ++policyCounts_[mode];
    }
  }
  ResetAllThresholds();
  return StatusCode::SUCCESS;
}

void WatchdogThresholdsManager::AddStartEvent() {
  lastStartTime_ = NowSec();
  for (uint32_t i = 0; i < policyCounts_[currentMode_]; ++i) {
    if (Threshold* threshold = WalkedThreshold(i)) threshold->AddStartEvent();
  }
}

PolicyResult WatchdogThresholdsManager::AddFailureEvent(int32_t& sleepSeconds) {
  uint32_t result = POLICY_RESULT_NONE;
  for (uint32_t i = 0; i < policyCounts_[currentMode_]; ++i) {
    Threshold* threshold = WalkedThreshold(i);
    // Every policy walked records the failure, met or not.
    if (threshold == nullptr || !threshold->AddFailureEvent()) continue;
    const uint32_t policyResult = policies_[currentMode_][i].result;
    if (policyResult <= result) continue;
    QWD_LOG_INFO(kComponent,
                 "Policy at idx %d for mode %d with %d events at %d seconds was met! changing "
                 "result %d -> %d\n",
                 i, currentMode_, threshold->GetNumberOfEvents(), threshold->GetNumberOfSeconds(),
                 result, policyResult);
    result = policyResult;
    // Safe mode ends the walk: later policies do not see this failure.
    if (result == POLICY_RESULT_SAFE_MODE) break;
  }
  if (result >= POLICY_RESULT_SAFE_MODE) {
    sleepSeconds = 0;
    return static_cast<PolicyResult>(result);
  }
  if (result == POLICY_RESULT_DELAY) {
    QWD_LOG_INFO(kComponent,
                 "Policy violation leads to increasing delay! concurrent violations %zu -> %zu\n",
                 static_cast<size_t>(concurrentViolations_),
                 static_cast<size_t>(concurrentViolations_ + 1));
    ++concurrentViolations_;
  }
  // Compared as unsigned numbers: a negative setting counts as a huge one.
  const uint32_t delay = concurrentViolations_ * static_cast<uint32_t>(delayIncreaseSec_);
  sleepSeconds = static_cast<int32_t>(std::min(static_cast<uint32_t>(maxDelaySec_), delay));
  QWD_LOG_INFO(kComponent, "Current or previous policy violation resulted in sleeping %d seconds\n",
               sleepSeconds);
  return sleepSeconds >= 1 ? POLICY_RESULT_DELAY : static_cast<PolicyResult>(result);
}

void WatchdogThresholdsManager::NotifyRunning() {
  if (NowSec() - lastStartTime_ > cleanupSec_ && concurrentViolations_ != 0) {
    QWD_LOG_INFO(kComponent, "Nullifying concurrent violations, was %zu\n",
                 static_cast<size_t>(concurrentViolations_));
    concurrentViolations_ = 0;
  }
}

void WatchdogThresholdsManager::SwitchMode(uint32_t newMode) {
  if (newMode == currentMode_) {
    QWD_LOG_ERROR(kComponent, "Switching from mode %d to itself?\n", newMode);
    return;
  }
  if (!QWD_ASSERT(kComponent, newMode < OPERATIONAL_MODE_NUM_OF,
                  "newMode < OPERATIONAL_MODE_NUM_OF")) {
    return;
  }
  QWD_LOG_INFO(kComponent, "Switching modes %d -> %d\n", currentMode_, newMode);
  ResetAllThresholds();
  currentMode_ = newMode;
  concurrentViolations_ = 0;
}

void WatchdogThresholdsManager::Teardown() {
  for (uint32_t mode = 0; mode < OPERATIONAL_MODE_NUM_OF; ++mode) {
    for (uint32_t i = 0; i < policyCounts_[mode]; ++i) policies_[mode][i].threshold.reset();
  }
}
