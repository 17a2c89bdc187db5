// The typed calls of commands 1 to 9, each sending its request layout and
// reading its reply layout.

#include <cstring>

#include "client/WatchdogClient.h"
#include "ipc/IpcChannel.h"

StatusCode WatchdogClient::Call(WatchdogCommand command, const void* data, size_t dataLen,
                                U32Reply* reply) {
  // A reply buffer even where none is expected: unexpected reply data is then
  // dropped instead of failing the call.
  U32Reply unused{};
  return channel_->SendCommand(CommandId(command), data, dataLen,
                               reply != nullptr ? reply : &unused, sizeof(U32Reply),
                               kReplyTimeoutMsec);
}

StatusCode WatchdogClient::CallWithText(WatchdogCommand command, const char* text) {
  if (text == nullptr) return StatusCode::INVALID_PARAM;
  // The handlers read a terminated string: the terminator travels too.
  return Call(command, text, std::strlen(text) + 1, nullptr);
}

StatusCode WatchdogClient::IncreaseLogGeneration(uint32_t* previousGeneration) {
  U32Reply reply{};
  const StatusCode status = Call(WatchdogCommand::INCREASE_LOG_GENERATION, nullptr, 0, &reply);
  if (previousGeneration != nullptr) *previousGeneration = reply.value;
  return status;
}

StatusCode WatchdogClient::SetComponentLogLevel(uint32_t component, uint32_t level) {
  const ComponentLogLevelRequest request{component, level};
  return Call(WatchdogCommand::SET_COMPONENT_LOG_LEVEL, &request, sizeof(request), nullptr);
}

StatusCode WatchdogClient::RequestOperationalMode(uint32_t mode) {
  const OperationalModeRequest request{mode};
  return Call(WatchdogCommand::OPERATIONAL_MODE, &request, sizeof(request), nullptr);
}

StatusCode WatchdogClient::RestartAll(uint32_t delayMsec) {
  const RestartAllRequest request{delayMsec};
  return Call(WatchdogCommand::RESTART_ALL, &request, sizeof(request), nullptr);
}

StatusCode WatchdogClient::ReportNewestVersion(const char* version) {
  return CallWithText(WatchdogCommand::NEWEST_VERSION, version);
}

StatusCode WatchdogClient::SetAccountId(const char* accountId) {
  return CallWithText(WatchdogCommand::SET_ACCOUNT_ID, accountId);
}

StatusCode WatchdogClient::SetMemoryLimit(uint32_t limitBytes, bool triggersSafeMode) {
  const MemoryLimitRequest request{limitBytes, static_cast<uint8_t>(triggersSafeMode ? 1 : 0)};
  return Call(WatchdogCommand::SET_MEMORY_LIMIT, &request, sizeof(request), nullptr);
}

StatusCode WatchdogClient::GetWatchdogPid(int32_t* pid) {
  U32Reply reply{};
  const StatusCode status = Call(WatchdogCommand::GET_PID, nullptr, 0, &reply);
  if (pid != nullptr) *pid = static_cast<int32_t>(reply.value);
  return status;
}

StatusCode WatchdogClient::LoadKernelModule(int32_t* moduleStatus) {
  U32Reply reply{};
  const StatusCode status = Call(WatchdogCommand::LOAD_KERNEL_MODULE, nullptr, 0, &reply);
  if (moduleStatus != nullptr) *moduleStatus = static_cast<int32_t>(reply.value);
  return status;
}
