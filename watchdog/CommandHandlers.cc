// The commands the agent's processes send to the watchdog (ids 1 to 9 on
// every process channel, in the layouts of WatchdogProtocol.h). They run
// inside the supervision loop's listener wait and mostly change what the loop
// reads in the same cycle.

#include <algorithm>
#include <cstring>

#include "common/Log.h"
#include "common/LoggerLevelNames.h"
#include "common/ProcessUtils.h"
#include "common/StringUtils.h"
#include "logger/Logger.h"
#include "watchdog/Config.h"
#include "watchdog/Installation.h"
#include "watchdog/Watchdog.h"
#include "watchdog/entities/MonitoredModule.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_WATCHDOG;
constexpr size_t kTextSize = kMaxTextRequestSize;
// Supervision stops while the requested delay runs: an agent cannot suspend
// it for longer than this.
constexpr uint32_t kMaxStopDelayMs = 60 * 1000;

// The request's text, terminated whatever the sender wrote.
void ReadText(const void* data, size_t dataLen, char (&text)[kTextSize]) {
  text[0] = '\0';
  if (data != nullptr) SafeStrnCopy(text, sizeof(text), static_cast<const char*>(data), dataLen);
}

StatusCode Reply(uint32_t value, void* reply, size_t replySize, size_t* replyLen) {
  const U32Reply record{value};
  *replyLen = 0;
  if (reply == nullptr || replySize < sizeof(record)) return StatusCode::SUCCESS;
  std::memcpy(reply, &record, sizeof(record));
  *replyLen = sizeof(record);
  return StatusCode::SUCCESS;
}

// The version becomes a directory whose control script runs as root, so a
// text naming another directory ("/", "..", ".") is refused. The texts that
// have no directory ("", "N/A", "undefined") take the upgrade's own way out.
bool IsPathLikeVersionText(const char* text) {
  return Installation::HasVersionDirectory(text) &&
         (std::strchr(text, '/') != nullptr || std::strstr(text, "..") != nullptr ||
          std::strcmp(text, ".") == 0);
}

}  // namespace

// Entry k serves command k + 1: command 0 belongs to each process entity.
constexpr std::array<IpcHandler, Watchdog::kNumCommandHandlers> Watchdog::MakeCommandHandlers() {
  std::array<IpcHandler, kNumCommandHandlers> table{};
  const auto slot = [](WatchdogCommand command) { return CommandId(command) - 1; };
  table[slot(WatchdogCommand::INCREASE_LOG_GENERATION)] = HandleIncreaseLogGeneration;
  table[slot(WatchdogCommand::SET_COMPONENT_LOG_LEVEL)] = HandleSetComponentLogLevel;
  table[slot(WatchdogCommand::OPERATIONAL_MODE)] = HandleOperationalModeRequest;
  table[slot(WatchdogCommand::RESTART_ALL)] = HandleRestartAll;
  table[slot(WatchdogCommand::NEWEST_VERSION)] = HandleNewestVersion;
  table[slot(WatchdogCommand::SET_ACCOUNT_ID)] = HandleSetAccountId;
  table[slot(WatchdogCommand::SET_MEMORY_LIMIT)] = HandleSetMemoryLimit;
  table[slot(WatchdogCommand::GET_PID)] = HandleGetPid;
  table[slot(WatchdogCommand::LOAD_KERNEL_MODULE)] = HandleLoadKernelModule;
  return table;
}

const std::array<IpcHandler, Watchdog::kNumCommandHandlers> Watchdog::kCommandHandlers =
    MakeCommandHandlers();
static_assert(Watchdog::kNumCommandHandlers + 1 == kNumWatchdogCommands,
              "every command but the status notification has its handler");
static_assert(kNumWatchdogCommands <= kIpcMaxCommands, "every command id fits a channel");

StatusCode Watchdog::HandleIncreaseLogGeneration(const void*, size_t, void* reply, size_t replySize,
                                                 size_t* replyLen, void*) {
  const uint32_t previous = Logger::LoggerGenerationInc();
  QWD_LOG_VERBOSE(kComponent, "Increased log generation, previous log generation %d\n",
                  static_cast<int>(previous));
  return Reply(previous, reply, replySize, replyLen);
}

StatusCode Watchdog::HandleSetComponentLogLevel(const void* data, size_t dataLen, void*, size_t,
                                                size_t* replyLen, void*) {
  *replyLen = 0;
  const auto request = DecodeRecord<ComponentLogLevelRequest>(data, dataLen);
  const uint32_t component = request.component;
  const uint32_t level = request.level;
  Logger::UpdateSingleCompLogLevel(component, level);
  QWD_LOG_VERBOSE(kComponent, "Changed log level for component %d to %s(%d)\n",
                  static_cast<int>(component), LoggerLevelToStr(level), static_cast<int>(level));
  return StatusCode::SUCCESS;
}

StatusCode Watchdog::HandleOperationalModeRequest(const void* data, size_t dataLen, void*, size_t,
                                                  size_t* replyLen, void* context) {
  *replyLen = 0;
  const uint32_t mode = DecodeRecord<OperationalModeRequest>(data, dataLen).mode;
  if (mode >= OPERATIONAL_MODE_NUM_OF) {
    QWD_LOG_ERROR(kComponent, "Got a request for operational mode %d?\n", static_cast<int>(mode));
    return StatusCode::INVALID_PARAM;
  }
  static_cast<Watchdog*>(context)->ChangeOperationalMode(mode);
  return StatusCode::SUCCESS;
}

StatusCode Watchdog::HandleRestartAll(const void* data, size_t dataLen, void*, size_t,
                                      size_t* replyLen, void* context) {
  *replyLen = 0;
  auto* watchdog = static_cast<Watchdog*>(context);
  const uint32_t delayMs = DecodeRecord<RestartAllRequest>(data, dataLen).delayMsec;
  if (delayMs > kMaxStopDelayMs) {
    QWD_LOG_WARN(kComponent, "Stop delay of %u msecs asked for, %u at most: using %u\n", delayMs,
                 kMaxStopDelayMs, kMaxStopDelayMs);
  }
  watchdog->stopDelayMs_ = std::min(delayMs, kMaxStopDelayMs);
  watchdog->RestartAllEntities();
  return StatusCode::SUCCESS;
}

StatusCode Watchdog::HandleNewestVersion(const void* data, size_t dataLen, void*, size_t,
                                         size_t* replyLen, void* context) {
  *replyLen = 0;
  auto* watchdog = static_cast<Watchdog*>(context);
  char text[kTextSize];
  ReadText(data, dataLen, text);
  QWD_LOG_INFO(kComponent, "Got newest Quillmor version from agent [%s]", text);
  // A request without any data carries no version at all.
  if (dataLen == 0 || IsPathLikeVersionText(text)) {
    QWD_LOG_ERROR(kComponent, "Refusing newest version '%s': not a version directory name\n", text);
    return StatusCode::INVALID_PARAM;
  }
  if (std::strncmp(text, watchdog->currentVersion_.data(), kVersionSize) != 0) {
    watchdog->newestVersion_.fill('\0');
    SafeStrCopy(watchdog->newestVersion_, text);
  }
  return StatusCode::SUCCESS;
}

StatusCode Watchdog::HandleSetAccountId(const void* data, size_t dataLen, void*, size_t,
                                        size_t* replyLen, void*) {
  *replyLen = 0;
  char text[kTextSize];
  ReadText(data, dataLen, text);
  Logger::SetAccountId(text);
  return StatusCode::SUCCESS;
}

StatusCode Watchdog::HandleSetMemoryLimit(const void* data, size_t dataLen, void*, size_t,
                                          size_t* replyLen, void* context) {
  *replyLen = 0;
  auto* watchdog = static_cast<Watchdog*>(context);
  const auto request = DecodeRecord<MemoryLimitRequest>(data, dataLen);
  watchdog->memoryLimitBytes_ = request.limitBytes;
  watchdog->memoryLimitTriggersSafeMode_ = request.triggersSafeMode != 0;
  QWD_LOG_INFO(kComponent,
               "System memory limit is set: Memory [%zu] bytes, trigger safe mode[%s]\n",
               static_cast<size_t>(watchdog->memoryLimitBytes_),
               watchdog->memoryLimitTriggersSafeMode_ ? "True" : "False");
  return StatusCode::SUCCESS;
}

StatusCode Watchdog::HandleGetPid(const void*, size_t, void* reply, size_t replySize,
                                  size_t* replyLen, void*) {
  const pid_t pid = GetCachedPid();
  QWD_LOG_DEBUG(kComponent, "Getting Watchdog's pid: %d\n", static_cast<int>(pid));
  return Reply(static_cast<uint32_t>(pid), reply, replySize, replyLen);
}

StatusCode Watchdog::HandleLoadKernelModule(const void*, size_t, void* reply, size_t replySize,
                                            size_t* replyLen, void* context) {
  *replyLen = 0;
  auto* watchdog = static_cast<Watchdog*>(context);
  std::array<char, Installation::kDirNameSize> dir{};
  std::array<char, Installation::kBaseNameSize> file{};
  Installation::SplitPath(Config::GetStrValue(CFG_MODULE_SYM_LINK_PATH), dir, file);
  QWD_LOG_INFO(kComponent, "Watchdog received load kernel module command\n");
  std::unique_ptr<MonitoredModule> module =
      CreateMonitoredModule(dir.data(), file.data(), "nfmodule", nullptr);
  if (!module) {
    QWD_LOG_ERROR(kComponent, "Failed to allocate monitored entity!\n");
    return StatusCode::FAILURE;
  }
  // The normal row watches the module whatever the current mode; the loop
  // drops it after every stop of all entities.
  EntityRow& normal = watchdog->entityTable_[OPERATIONAL_MODE_NORMAL];
  normal.entities[0] = std::move(module);
  normal.indices[0] = 0;
  const StatusCode started = normal.entities[0]->Start();
  if (started != StatusCode::SUCCESS) {
    QWD_LOG_ERROR(kComponent, "Failed to start kernel module!\n");
    return started;
  }
  return Reply(static_cast<uint32_t>(normal.entities[0]->GetStatus()), reply, replySize, replyLen);
}
