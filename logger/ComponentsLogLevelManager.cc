#include "logger/ComponentsLogLevelManager.h"

namespace {

// The rows below the first component are the agent's own settings; the
// watchdog only needs to know that they are not components.
bool IsLogComponent(uint32_t row) {
  return row < kNumConfigurationVars && LogComponentName(row) != nullptr;
}

}  // namespace

void ComponentsLogLevelManager::Init() {
  for (uint32_t row = 0; row < kNumConfigurationVars; ++row) {
    const LoggerLevel level =
        row == LOGGER_COMPONENT_SNIFFER ? LoggerLevel::DEBUG : LoggerLevel::INFO;
    levels_[row] = IsLogComponent(row) ? static_cast<uint8_t>(level) : 0;
  }
}

bool ComponentsLogLevelManager::SetComponentLogLevel(uint32_t component, uint32_t level) {
  if (level >= static_cast<uint32_t>(LoggerLevel::INVALID) || !IsLogComponent(component)) {
    return false;
  }
  levels_[component] = static_cast<uint8_t>(level);
  return true;
}
