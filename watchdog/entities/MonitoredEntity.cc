#include "watchdog/entities/MonitoredEntity.h"

#include <array>

#include "common/Log.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_WATCHDOG;

constexpr std::array<const char*, 6> kStatusTexts = {"not running", "running", "failed",
                                                     "timeout",     "restart", "unknown"};

}  // namespace

const char* MonitoredEntityStatusToStr(MonitoredEntityStatus status) {
  const uint32_t value = static_cast<uint32_t>(status);
  return value < kStatusTexts.size() ? kStatusTexts[value] : "N/A";
}

StatusCode MonitoredEntity::Start() { return StatusCode::SUCCESS; }

StatusCode MonitoredEntity::Stop() { return StatusCode::SUCCESS; }

MonitoredEntityStatus MonitoredEntity::GetStatus() { return status_; }

void MonitoredEntity::SetStatus(MonitoredEntityStatus status) { status_ = status; }

void MonitoredEntity::CheckStatus() {}

const char* MonitoredEntity::GetName() {
  QWD_LOG_ERROR(kComponent, "Base Name function should never be called!\n");
  return nullptr;
}

IpcChannel* MonitoredEntity::GetIpcChannel() {
  QWD_LOG_WARN(kComponent, "This entity doesn't have a communication channel\n");
  return nullptr;
}

void MonitoredEntity::CheckResources() {}
