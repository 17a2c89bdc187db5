#include "agent/src/infra/logger/ComponentsLogLevelManager.h"

namespace {

// What the logger needs of one configuration-variable row.
struct ConfigurationVarRow {
  bool isLogComponent;   // the row is a LOGGER_COMPONENT_ one
  int32_t defaultLevel;  // its default minimum level
};

// The rows below the first component are the agent's own settings; the watchdog
// only needs to know that they are not components.
bool GetConfigurationVarRow(uint32_t index, ConfigurationVarRow* row) {
  if (index >= kNumConfigurationVars) return false;
  row->isLogComponent = LogComponentName(index) != nullptr;
  row->defaultLevel = static_cast<int32_t>(index == LOGGER_COMPONENT_SNIFFER ? LoggerLevel::DEBUG
                                                                             : LoggerLevel::INFO);
  return true;
}

}  // namespace

bool ComponentsLogLevelManager::Init() {
  for (uint32_t index = 0; index < kNumConfigurationVars; ++index) {
    ConfigurationVarRow row{};
    if (!GetConfigurationVarRow(index, &row)) return false;
    levels_[index] = row.isLogComponent ? row.defaultLevel : 0;
  }
  return true;
}

bool ComponentsLogLevelManager::SetComponentLogLevel(uint32_t component, uint32_t level) {
  ConfigurationVarRow row{};
  if (level >= static_cast<uint32_t>(LoggerLevel::INVALID)) return false;
  if (!GetConfigurationVarRow(component, &row) || !row.isLogComponent) return false;
  levels_[component] = static_cast<int32_t>(level);
  return true;
}
