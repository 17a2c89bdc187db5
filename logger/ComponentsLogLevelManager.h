#pragma once

// Minimum log level of every log component, one slot per row of the
// configuration-variable table shared with the agent. Rows that are not log
// components keep 0 and cannot be set.

#include <array>
#include <cstdint>

#include "common/Log.h"

class ComponentsLogLevelManager {
 public:
  // Stores every component's default: INFO, SNIFFER at DEBUG. The table is
  // compiled in, so no row can be missing and this cannot fail.
  void Init();
  // INVALID for a component of kNumConfigurationVars or more: nothing of it is
  // ever logged.
  int32_t GetComponentLogLevel(uint32_t component) const {
    return component < kNumConfigurationVars ? levels_[component]
                                             : static_cast<int32_t>(LoggerLevel::INVALID);
  }
  // Refuses (false, nothing stored) an unknown component, a level of INVALID or
  // more, and a row that is not a log component.
  bool SetComponentLogLevel(uint32_t component, uint32_t level);

 private:
  // A byte each: every level is below INVALID, and the table stays small.
  std::array<uint8_t, kNumConfigurationVars> levels_{};  // minimum level per row
};
