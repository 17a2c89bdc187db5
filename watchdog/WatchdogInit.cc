// Start-up: from a loaded configuration to the first start of the entities.
// The order matters: the links point into the version directory and the
// processes are started through the links.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/CrashHandler.h"
#include "common/FileUtils.h"
#include "common/Log.h"
#include "common/ProcessUtils.h"
#include "common/StringUtils.h"
#include "common/version.h"
#include "logger/Logger.h"
#include "logger/LoggerConfig.h"
#include "watchdog/Config.h"
#include "watchdog/Installation.h"
#include "watchdog/StartupReport.h"
#include "watchdog/Watchdog.h"
#include "watchdog/entities/MonitoredProcess.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_WATCHDOG;
constexpr uint32_t kLogFileSize = 25000;
constexpr uint32_t kLogFiles = 2;
constexpr int32_t kMaxLastSeenMsec = 20000;
constexpr uint32_t kConnectTimeoutMsec = 20000;
constexpr uint32_t kCmdDataSize = 200;
constexpr uint32_t kReplySize = 4;

// The cause has been said on standard error by the step that failed.
[[noreturn]] void StartupFailureExit() {
  std::puts("Watchdog failed to initialize. Aborting!!!");
  Config::Teardown();
  WatchdogExit(0);
}

// The logger writes to its files only; false when it could not be made.
bool InitLogger() {
  std::unique_ptr<LoggerConfig> console = LoggerConfig::CreateConsoleLoggerConfig();
  char prefix[128];
  PrepareLogFilePrefix(prefix, sizeof(prefix), Config::GetStrValue(CFG_WD_LOG_PATH));
  std::unique_ptr<LoggerConfig> file = LoggerConfig::CreateFileLoggerConfig(
      Config::GetStrValue(CFG_WD_LOG_DIR), prefix, kLogFileSize, kLogFiles, GetCachedPid());
  const bool created = Logger::InitLogger(console.get(), file.get(), nullptr);
  if (created) {
    Logger::SetLoggerTargetEnableState(Logger::kConsoleTarget, 0);
    Logger::SetLoggerTargetEnableState(Logger::kFileTarget, 1);
  }
  LoggerConfig::DestroyConfig(&console);
  LoggerConfig::DestroyConfig(&file);
  return created;
}

// The agent's extra arguments: "--wd" [, "--safe-mode"], "--dns", the
// servers and the optional local version pair, null-terminated.
void FillAgentArgs(std::array<const char*, 8>& args, bool safeMode) {
  size_t n = 0;
  args[n++] = "--wd";
  if (safeMode) args[n++] = "--safe-mode";
  args[n++] = "--dns";
  args[n++] = Config::GetStrValue(CFG_DNS_SERVERS);
  const char* localVersion = Config::GetStrValue(CFG_LOCAL_VERSION_PATH);
  if (localVersion[0] != '\0') {
    args[n++] = "--local-version-path";
    args[n++] = localVersion;
  }
  args[n] = nullptr;
}

}  // namespace

void Watchdog::Init() {
  const uint32_t affinityMask = static_cast<uint32_t>(Config::GetIntValue(CFG_CPU_AFFINITY_MASK));
  if (affinityMask != 0) {
    const StatusCode status =
        CommonSetCpuAffinity(affinityMask, Config::GetIntValue(CFG_CPU_CORES_NUMBER));
    if (status != StatusCode::SUCCESS) {
      std::printf("Failed setting CPU Affinity, got %s(%d). Quitting...\n", StatusCodeToStr(status),
                  StatusCodeToInt(status));
      StartupReport::Say("cannot set the CPU affinity mask 0x%x on %d cores: %s", affinityMask,
                         static_cast<int>(Config::GetIntValue(CFG_CPU_CORES_NUMBER)),
                         StatusCodeToStr(status));
      WatchdogExit(-1);
    }
  }
  GetQuillmorVersionStr(currentVersion_.data(), currentVersion_.size(), true);
  newestVersion_ = currentVersion_;

  char dumpName[kPathSize];
  std::snprintf(dumpName, sizeof(dumpName), "Quillmor_%s_WatchdogStackTrace",
                currentVersion_.data());
  if (!SetCrashHandler(Config::GetStrValue(CFG_WD_LOG_DIR), dumpName, 0)) {
    const int error = errno;  // the open of the dump's
    std::puts("Failed initializing crash handler");
    StartupReport::Say("cannot create the crash dump in log directory '%s' (wdLogDir): %s",
                       Config::GetStrValue(CFG_WD_LOG_DIR), std::strerror(error));
    WatchdogExit(-1);
  }
  // Every way out ends in exit(), which then leaves no descriptor but the standard ones.
  std::atexit(CloseCrashDump);
  if (!InitLogger()) {
    std::puts("Failed creating logger, exiting...");
    StartupReport::Say("cannot create the log files in '%s' (wdLogDir)",
                       Config::GetStrValue(CFG_WD_LOG_DIR));
    WatchdogExit(-1);
  }
  SetCrashAccountIdSource(Logger::GetAccountIdString);
  // The watchdog sleeps on these: a negative number would become a sleep of
  // days once taken as unsigned, so it gives way to the default. Zero keeps
  // its meaning, no sleep.
  for (const ConfigKey key :
       {CFG_DELAY_TIME_INCREASE_SEC, CFG_MAX_DELAY_PERIOD_SEC, CFG_SLEEP_ON_CRITICAL_ERROR_SEC}) {
    Config::ResetIfNegative(key);
  }
  if (policy_.Init() != StatusCode::SUCCESS) {
    QWD_LOG_ERROR(kComponent,
                  "Failed initializing the restart policies: restarts are not limited\n");
  }
  QWD_LOG_INFO(kComponent, "Running watchdogInit for version [%s] \n", currentVersion_.data());
  Installation::ReportResourceLimits();

  if (!MakeVersionDirectory()) StartupFailureExit();
  Installation::SetExecModes(currentVersion_.data());
  DumpConfigValues();
  Installation::RemovePreviousVersions(currentVersion_.data());

  const char* agentLink = Config::GetStrValue(CFG_AGENT_SYM_LINK_PATH);
  Installation::SplitPath(agentLink, agentDir_, agentBinary_);
  QWD_LOG_DEBUG(kComponent, "Split agent symlink '%s' to path '%s' and binary '%s'\n", agentLink,
                agentDir_.data(), agentBinary_.data());
  const char* systemExecLink = Config::GetStrValue(CFG_SYSTEM_EXEC_SYM_LINK_PATH);
  Installation::SplitPath(systemExecLink, systemExecDir_, systemExecBinary_);
  QWD_LOG_DEBUG(kComponent, "Split system exec symlink '%s' to path '%s' and binary '%s'\n",
                systemExecLink, systemExecDir_.data(), systemExecBinary_.data());

  listener_ = CreateIpcChannelListener(2, "watchdog listener");
  if (!listener_) {
    QWD_LOG_ERROR(kComponent, "Failed creating a WD IPC channel listener\n");
    StartupReport::Say("out of memory for the IPC channel listener");
    Config::Teardown();
    WatchdogExit(0);
  }
  WatchChildExits();
  const char* pidPrefix = Config::GetStrValue(CFG_PID_FILE_PATH);
  if (GetCachedPid() > 0 && pidPrefix[0] != '\0') {
    char pidFile[kPathSize];
    std::snprintf(pidFile, sizeof(pidFile), "%s%s.pid", pidPrefix, programName);
    WritePidFile(GetCachedPid(), pidFile);
  }
  CreateProcessEntities();
  channelDescriptors_.fill(-1);
}

// The version directory, the program links and the library links; the
// first failure is logged and ends the start.
bool Watchdog::MakeVersionDirectory() {
  char dir[kPathSize];
  if (!Installation::GetVersionDirectory(currentVersion_.data(), dir)) {
    QWD_LOG_ERROR(kComponent, "Failed getting self version directory\n");
    StartupReport::Say("no usable version string ('%s') to name the version directory",
                       currentVersion_.data());
    return false;
  }
  SafeStrCopy(versionDir_, dir);
  StartupReport::CheckPrograms(dir);
  if (!Installation::CreateProgramLinks(dir)) {
    QWD_LOG_ERROR(kComponent, "Failed creating agent and module symbolic links\n");
    return false;
  }
  if (!Installation::CreateSharedLibLinks(dir)) {
    QWD_LOG_ERROR(kComponent, "Failed creating .so symbolic links\n");
    return false;
  }
  return true;
}

void Watchdog::CreateProcessEntities() {
  const char* libPath = Config::GetStrValue(CFG_LIB_PATH);
  const bool setLdLibPath = Config::GetBoolValue(CFG_SET_LD_LIB_PATH);
  FillAgentArgs(normalAgentArgs_, false);
  FillAgentArgs(safeAgentArgs_, true);
  // A process that can't be made leaves its slot empty; the loop skips it.
  EntityRow& normal = entityTable_[OPERATIONAL_MODE_NORMAL];
  normal.entities[1] = CreateMonitoredProcess(
      systemExecDir_.data(), systemExecBinary_.data(), nullptr, libPath, kMaxLastSeenMsec, false,
      false, kSystemExecSocketName, kCmdDataSize, kReplySize, kCommandHandlers.data(),
      kNumCommandHandlers, kConnectTimeoutMsec, this);
  normal.indices[1] = 1;
  normal.entities[2] = CreateMonitoredProcess(
      agentDir_.data(), agentBinary_.data(), normalAgentArgs_.data(), libPath, kMaxLastSeenMsec,
      setLdLibPath, true, kUserAgentSocketName, kCmdDataSize, kReplySize, kCommandHandlers.data(),
      kNumCommandHandlers, kConnectTimeoutMsec, this);
  normal.indices[2] = 2;
  EntityRow& safe = entityTable_[OPERATIONAL_MODE_SAFE];
  safe.entities[0] = CreateMonitoredProcess(
      agentDir_.data(), agentBinary_.data(), safeAgentArgs_.data(), libPath, kMaxLastSeenMsec,
      setLdLibPath, true, kUserAgentSocketName, kCmdDataSize, kReplySize, kCommandHandlers.data(),
      kNumCommandHandlers, kConnectTimeoutMsec, this);
  safe.indices[2] = 0;
}
