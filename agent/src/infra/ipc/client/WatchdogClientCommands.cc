// The typed calls of commands 1 to 9: each packs its request in the layout
// the watchdog's handler reads and unpacks its 32-bit reply.

#include <cstring>

#include "agent/src/infra/ipc/IpcChannel.h"
#include "agent/src/infra/ipc/client/WatchdogClient.h"

StatusCode WatchdogClient::Call(WatchdogCommand command, const void* data, size_t dataLen,
                                uint32_t* reply) {
  // A reply buffer even where none is expected: unexpected reply data is then
  // dropped instead of failing the call.
  uint32_t unused = 0;
  return channel_->SendCommand(static_cast<int32_t>(command), data, dataLen,
                               reply != nullptr ? reply : &unused, sizeof(unused),
                               kReplyTimeoutMsec);
}

StatusCode WatchdogClient::CallWithText(WatchdogCommand command, const char* text) {
  if (text == nullptr) return StatusCode::INVALID_PARAM;
  // The handlers read a terminated string: the terminator travels too.
  return Call(command, text, std::strlen(text) + 1, nullptr);
}

StatusCode WatchdogClient::IncreaseLogGeneration(uint32_t* previousGeneration) {
  uint32_t reply = 0;
  const StatusCode status = Call(WatchdogCommand::INCREASE_LOG_GENERATION, nullptr, 0, &reply);
  if (previousGeneration != nullptr) *previousGeneration = reply;
  return status;
}

StatusCode WatchdogClient::SetComponentLogLevel(uint32_t component, uint32_t level) {
  const uint32_t request[2] = {component, level};
  return Call(WatchdogCommand::SET_COMPONENT_LOG_LEVEL, request, sizeof(request), nullptr);
}

StatusCode WatchdogClient::RequestOperationalMode(uint32_t mode) {
  return Call(WatchdogCommand::OPERATIONAL_MODE, &mode, sizeof(mode), nullptr);
}

StatusCode WatchdogClient::RestartAll(uint32_t delayMsec) {
  return Call(WatchdogCommand::RESTART_ALL, &delayMsec, sizeof(delayMsec), nullptr);
}

StatusCode WatchdogClient::ReportNewestVersion(const char* version) {
  return CallWithText(WatchdogCommand::NEWEST_VERSION, version);
}

StatusCode WatchdogClient::SetAccountId(const char* accountId) {
  return CallWithText(WatchdogCommand::SET_ACCOUNT_ID, accountId);
}

StatusCode WatchdogClient::SetMemoryLimit(uint32_t limitBytes, bool triggersSafeMode) {
  // The limit, then one flag byte, unpadded.
  uint8_t request[sizeof(limitBytes) + 1];
  std::memcpy(request, &limitBytes, sizeof(limitBytes));
  request[sizeof(limitBytes)] = triggersSafeMode ? 1 : 0;
  return Call(WatchdogCommand::SET_MEMORY_LIMIT, request, sizeof(request), nullptr);
}

StatusCode WatchdogClient::GetWatchdogPid(int32_t* pid) {
  uint32_t reply = 0;
  const StatusCode status = Call(WatchdogCommand::GET_PID, nullptr, 0, &reply);
  if (pid != nullptr) *pid = static_cast<int32_t>(reply);
  return status;
}

StatusCode WatchdogClient::LoadKernelModule(int32_t* moduleStatus) {
  uint32_t reply = 0;
  const StatusCode status = Call(WatchdogCommand::LOAD_KERNEL_MODULE, nullptr, 0, &reply);
  if (moduleStatus != nullptr) *moduleStatus = static_cast<int32_t>(reply);
  return status;
}
