#include "watchdog/WatchdogThresholdsManager.h"

#include <algorithm>
#include <cstddef>
#include <memory>

#include "agent/src/infra/stats/Threshold.h"
#include "common/Log.h"
#include "common/TimeUtils.h"
#include "watchdog/Config.h"

namespace WatchdogThresholdsManager {

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_WATCHDOG;

struct Policy {
  std::unique_ptr<Threshold> threshold;  // null while the policy is disabled
  uint32_t result;                       // what meeting it leads to; 0 disables it
};

// The configuration keys of one policy.
struct PolicyKeys {
  uint32_t numEvents;
  uint32_t durationSec;
  uint32_t result;
};

constexpr PolicyKeys kPolicyKeys[OPERATIONAL_MODE_NUM_OF][kPoliciesPerMode] = {
    {{CFG_NORMAL1_NUM_EVENTS, CFG_NORMAL1_DURATION_SEC, CFG_NORMAL1_RESULT},
     {CFG_NORMAL2_NUM_EVENTS, CFG_NORMAL2_DURATION_SEC, CFG_NORMAL2_RESULT},
     {CFG_NORMAL3_NUM_EVENTS, CFG_NORMAL3_DURATION_SEC, CFG_NORMAL3_RESULT}},
    {{CFG_SAFE1_NUM_EVENTS, CFG_SAFE1_DURATION_SEC, CFG_SAFE1_RESULT},
     {CFG_SAFE2_NUM_EVENTS, CFG_SAFE2_DURATION_SEC, CFG_SAFE2_RESULT},
     {CFG_SAFE3_NUM_EVENTS, CFG_SAFE3_DURATION_SEC, CFG_SAFE3_RESULT}},
};

Policy policies[OPERATIONAL_MODE_NUM_OF][kPoliciesPerMode];  // policy i of mode m
uint32_t g_policyCounts[OPERATIONAL_MODE_NUM_OF];            // enabled policies per mode
uint32_t g_currentMode = OPERATIONAL_MODE_NORMAL;            // mode whose policies apply
int32_t g_delayIncreaseSec;                                  // DelayTimeIncreaseSec
int32_t g_maxDelaySec;                                       // MaxDelayPeriodSec
uint32_t g_cleanupSec;                                       // ConcurrentCleanupSec
uint32_t g_lastStartTime;                                    // seconds, at the last start
uint32_t g_concurrentViolations;                             // delays since the last clean-up

uint32_t NowSec() { return static_cast<uint32_t>(GetCurrentTimeInSec()); }

// Policy i of the current mode. A disabled policy ahead of an enabled one
// leaves a null inside the walked range; it is reported and then skipped.
Threshold* WalkedThreshold(uint32_t i) {
  Threshold* threshold = policies[g_currentMode][i].threshold.get();
  QWD_ASSERT(kComponent, threshold != nullptr, "NULL != policies[g_currentMode][i].threshold");
  return threshold;
}

void ResetAllThresholds() {
  for (auto& mode : policies) {
    for (Policy& policy : mode) {
      if (policy.threshold) policy.threshold->ResetEvents();
    }
  }
}

}  // namespace

StatusCode Init() {
  g_currentMode = OPERATIONAL_MODE_NORMAL;
  g_concurrentViolations = 0;
  g_lastStartTime = 0;
  for (uint32_t& count : g_policyCounts) count = 0;
  g_delayIncreaseSec = Config::GetIntValue(CFG_DELAY_TIME_INCREASE_SEC);
  g_maxDelaySec = Config::GetIntValue(CFG_MAX_DELAY_PERIOD_SEC);
  g_cleanupSec = static_cast<uint32_t>(Config::GetIntValue(CFG_CONCURRENT_CLEANUP_SEC));

  for (uint32_t mode = 0; mode < OPERATIONAL_MODE_NUM_OF; ++mode) {
    for (uint32_t i = 0; i < kPoliciesPerMode; ++i) {
      const PolicyKeys& keys = kPolicyKeys[mode][i];
      Policy& policy = policies[mode][i];
      policy = Policy{nullptr, static_cast<uint32_t>(Config::GetIntValue(keys.result))};
      if (policy.result == POLICY_RESULT_NONE) continue;
      policy.threshold = Threshold::Create(Config::GetIntValue(keys.numEvents),
                                           Config::GetIntValue(keys.durationSec));
      if (!policy.threshold) {
        QWD_LOG_ERROR(kComponent, "Failed to create watchdog threshold \n");
        // No policy is counted yet, so this releases nothing: the thresholds
        // created so far stay in their slots.
        Teardown();
        return StatusCode::OUT_OF_MEMORY;
      }
    }
  }
  for (uint32_t mode = 0; mode < OPERATIONAL_MODE_NUM_OF; ++mode) {
    for (const Policy& policy : policies[mode]) {
      if (policy.result != POLICY_RESULT_NONE) ++g_policyCounts[mode];
    }
  }
  ResetAllThresholds();
  return StatusCode::SUCCESS;
}

void AddStartEvent() {
  g_lastStartTime = NowSec();
  for (uint32_t i = 0; i < g_policyCounts[g_currentMode]; ++i) {
    if (Threshold* threshold = WalkedThreshold(i)) threshold->AddStartEvent();
  }
}

PolicyResult AddFailureEvent(int32_t& sleepSeconds) {
  uint32_t result = POLICY_RESULT_NONE;
  for (uint32_t i = 0; i < g_policyCounts[g_currentMode]; ++i) {
    Threshold* threshold = WalkedThreshold(i);
    // Every policy walked records the failure, met or not.
    if (threshold == nullptr || !threshold->AddFailureEvent()) continue;
    const uint32_t policyResult = policies[g_currentMode][i].result;
    if (policyResult <= result) continue;
    QWD_LOG_INFO(kComponent,
                 "Policy at idx %d for mode %d with %d events at %d seconds was met! changing "
                 "result %d -> %d\n",
                 i, g_currentMode, threshold->GetNumberOfEvents(), threshold->GetNumberOfSeconds(),
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
                 static_cast<size_t>(g_concurrentViolations),
                 static_cast<size_t>(g_concurrentViolations + 1));
    ++g_concurrentViolations;
  }
  // Compared as unsigned numbers: a negative setting counts as a huge one.
  const uint32_t delay = g_concurrentViolations * static_cast<uint32_t>(g_delayIncreaseSec);
  sleepSeconds = static_cast<int32_t>(std::min(static_cast<uint32_t>(g_maxDelaySec), delay));
  QWD_LOG_INFO(kComponent, "Current or previous policy violation resulted in sleeping %d seconds\n",
               sleepSeconds);
  return sleepSeconds >= 1 ? POLICY_RESULT_DELAY : static_cast<PolicyResult>(result);
}

void NotifyRunning() {
  if (NowSec() - g_lastStartTime > g_cleanupSec && g_concurrentViolations != 0) {
    QWD_LOG_INFO(kComponent, "Nullifying concurrent violations, was %zu\n",
                 static_cast<size_t>(g_concurrentViolations));
    g_concurrentViolations = 0;
  }
}

void SwitchMode(uint32_t newMode) {
  if (newMode == g_currentMode) {
    QWD_LOG_ERROR(kComponent, "Switching from mode %d to itself?\n", newMode);
    return;
  }
  if (!QWD_ASSERT(kComponent, newMode < OPERATIONAL_MODE_NUM_OF,
                  "newMode < OPERATIONAL_MODE_NUM_OF")) {
    return;
  }
  QWD_LOG_INFO(kComponent, "Switching modes %d -> %d\n", g_currentMode, newMode);
  ResetAllThresholds();
  g_currentMode = newMode;
  g_concurrentViolations = 0;
}

void Teardown() {
  for (uint32_t mode = 0; mode < OPERATIONAL_MODE_NUM_OF; ++mode) {
    for (uint32_t i = 0; i < g_policyCounts[mode]; ++i) policies[mode][i].threshold.reset();
  }
}

}  // namespace WatchdogThresholdsManager
