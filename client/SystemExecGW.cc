#include "client/SystemExecGW.h"

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/LoggerLevelNames.h"
#include "common/Shell.h"
#include "common/StringUtils.h"
#include "ipc/IpcChannel.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_SYSTEM_EXEC;

bool g_remote = false;
// Lives until the process ends: never destroyed at exit, while other threads
// may still be sending on it.
IpcChannel* g_channel = nullptr;

// Stops the process like a failed assert(), in every build type.
[[noreturn]] void AssertionFailed(const char* text, const char* function, int line) {
  std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", __FILE__, line, function, text);
  std::abort();
}

// A control command without request data and with a 4-byte reply.
StatusCode QueryValue(SystemExecGW::Command command, int32_t* value) {
  return g_channel->SendCommand(command, nullptr, 0, value, sizeof(*value),
                                SystemExecGW::kControlTimeoutMsec);
}

StatusCode SendRecord(SystemExecGW::Command command,
                      const std::array<uint8_t, SystemExecGW::kRecordSize>& record) {
  return g_channel->SendCommand(command, record.data(), record.size(), nullptr, 0,
                                SystemExecGW::kControlTimeoutMsec);
}

}  // namespace

namespace SystemExecGW {

StatusCode Init(bool runLocally) {
  if (runLocally) {
    g_remote = false;
    return StatusCode::SUCCESS;
  }
  std::unique_ptr<IpcChannel> channel = CreateIpcChannel(kSocketPath, 0, 0, true);
  delete g_channel;
  g_channel = channel.release();
  if (g_channel == nullptr) {
    QWD_LOG_ERROR(kComponent, "Failed creating system exec client IPC channel\n");
    return StatusCode::FAILURE;
  }
  if (g_channel->Connect(false) != StatusCode::SUCCESS) {
    QWD_LOG_ERROR(kComponent, "Failed connecting to server!\n");
    return StatusCode::FAILURE;
  }
  g_remote = true;
  QWD_LOG_INFO(kComponent, "System exec client-side initialized successfully\n");
  return StatusCode::SUCCESS;
}

StatusCode IncreaseLogGeneration(uint32_t* previousGeneration) {
  if (!g_remote) return StatusCode::SUCCESS;
  if (g_channel == nullptr) return StatusCode::NOT_SUPPORTED;
  int32_t previous = 0;
  const StatusCode status = QueryValue(kIncreaseLogGeneration, &previous);
  QWD_LOG_VERBOSE(kComponent, "Increased log generation, ret %s, previous generation %d\n",
                  StatusCodeToStr(status), previous);
  *previousGeneration = static_cast<uint32_t>(previous);
  return status;
}

StatusCode SetComponentLogLevel(int32_t component, LoggerLevel level) {
  if (!g_remote) return StatusCode::SUCCESS;
  if (g_channel == nullptr) return StatusCode::NOT_SUPPORTED;
  std::array<uint8_t, kRecordSize> record{};
  const auto levelValue = static_cast<int32_t>(level);
  std::memcpy(record.data(), &component, sizeof(component));
  std::memcpy(record.data() + sizeof(component), &levelValue, sizeof(levelValue));
  const StatusCode status = SendRecord(kSetComponentLogLevel, record);
  QWD_LOG_VERBOSE(kComponent, "Log level for component %d set to %s (%d), ret %s\n", component,
                  LoggerLevelToStr(levelValue), levelValue, StatusCodeToStr(status));
  return status;
}

StatusCode SetAccountId(const char* accountId) {
  if (!g_remote) return StatusCode::SUCCESS;
  if (g_channel == nullptr) return StatusCode::NOT_SUPPORTED;
  std::array<uint8_t, kRecordSize> record{};
  SafeStrnCopy(reinterpret_cast<char*>(record.data()), kAccountIdSize, accountId, kAccountIdSize);
  const StatusCode status = SendRecord(kSetAccountId, record);
  if (status != StatusCode::SUCCESS) {
    QWD_LOG_ERROR(kComponent, "Failed sending a request to system exec. returned %s (%d)\n",
                  StatusCodeToStr(status), StatusCodeToInt(status));
  }
  QWD_LOG_VERBOSE(kComponent, "Account ID was set to %s, ret %s\n",
                  reinterpret_cast<const char*>(record.data()), StatusCodeToStr(status));
  return status;
}

StatusCode GetSystemExecPid(int32_t* pid) {
  if (!g_remote) {
    *pid = 0;
    return StatusCode::SUCCESS;
  }
  if (g_channel == nullptr) return StatusCode::NOT_SUPPORTED;
  const StatusCode status = QueryValue(kGetPid, pid);
  QWD_LOG_VERBOSE(kComponent, "Got SystemExec pid - %d\n", *pid);
  return status;
}

}  // namespace SystemExecGW

namespace SystemExec {

StatusCode SystemCustomTimeout(const char* command, int32_t* rc, int32_t timeoutMsec) {
  if (rc == nullptr) AssertionFailed("rc != ((void *)0)", __func__, __LINE__);
  if (!QWD_ASSERT(kComponent, command != nullptr, "command != NULL")) return StatusCode::FAILURE;
  if (!g_remote) {
    *rc = GetShell().System(command);
    QWD_LOG_VERBOSE(kComponent, "Command '%s' locally executed, system() rc %d, exit status %d\n",
                    command, *rc, WEXITSTATUS(*rc));
    return StatusCode::SUCCESS;
  }
  if (g_channel == nullptr) return StatusCode::NOT_SUPPORTED;
  QWD_LOG_DEBUG(kComponent, "Going to send '%s' to remote process\n", command);
  int32_t received = 0;
  const StatusCode status =
      g_channel->SendCommand(SystemExecGW::kRunCommand, command, std::strlen(command) + 1,
                             &received, sizeof(received), timeoutMsec);
  QWD_LOG_VERBOSE(kComponent,
                  "Command '%s' remotely executed, IPC ret %s, system() rc %d, exit status %d\n",
                  command, StatusCodeToStr(status), received, WEXITSTATUS(received));
  *rc = received;
  return status;
}

StatusCode System(const char* command, int32_t* rc) {
  return SystemCustomTimeout(command, rc, SystemExecGW::kDefaultCommandTimeoutMsec);
}

}  // namespace SystemExec
