#include "watchdog/entities/MonitoredProcess.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "common/FileUtils.h"
#include "common/Log.h"
#include "common/ProcessTree.h"
#include "common/ProcessUtils.h"
#include "common/StringUtils.h"
#include "common/TimeUtils.h"
#include "watchdog/Config.h"
#include "watchdog/resources/SysResourcesMonitoring.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_WATCHDOG;
constexpr int32_t kMemoryStepKb = 1024;

}  // namespace

std::unique_ptr<MonitoredProcess> CreateMonitoredProcess(
    const char* dirPath, const char* binaryName, const char* const* extraArgs, const char* libPath,
    int32_t maxLastSeenMsec, bool setLdLibPath, bool checkLastSeen, const char* socketName,
    uint32_t cmdDataSize, uint32_t replySize, const IpcHandler* handlers, int32_t handlerCount,
    uint32_t connectTimeoutMsec, void* handlerContext) {
  // Every refusal comes before the entity exists, so that no destruction
  // line follows it.
  std::unique_ptr<IpcChannel> channel;
  if (socketName != nullptr) {
    channel = CreateIpcChannel(socketName, cmdDataSize, replySize, false);
    if (!channel) {
      QWD_LOG_ERROR(kComponent, "Failed creating IPC channel server for %s", socketName);
      return nullptr;
    }
  }
  if (binaryName == nullptr || libPath == nullptr) {
    QWD_LOG_ERROR(kComponent,
                  "Can't create monitored process object with a null binary (%p) or null lib "
                  "path (%p)",
                  static_cast<const void*>(binaryName), static_cast<const void*>(libPath));
    return nullptr;
  }
  for (int32_t id = 1; channel && id <= handlerCount; ++id) {
    if (channel->RegisterHandler(id, handlers[id - 1], handlerContext) != StatusCode::SUCCESS) {
      QWD_LOG_ERROR(kComponent, "Failed registering handler (command ID %d) for %s\n", id,
                    binaryName);
      return nullptr;
    }
  }
  std::unique_ptr<MonitoredProcess> process(new (std::nothrow) MonitoredProcess());
  if (!process) {
    QWD_LOG_ERROR(kComponent, "Can't allocate memory for monitored process '%s'\n", binaryName);
    return nullptr;
  }
  // The library directory is checked, never applied; the socket's path is
  // the channel's own.
  process->MonitoredProcessCtor(std::move(channel), dirPath, binaryName, extraArgs, maxLastSeenMsec,
                                setLdLibPath, checkLastSeen, connectTimeoutMsec);
  return process;
}

void MonitoredProcess::MonitoredProcessCtor(std::unique_ptr<IpcChannel> channel,
                                            const char* dirPath, const char* binaryName,
                                            const char* const* extraArgs, int32_t maxLastSeenMsec,
                                            bool setLdLibPath, bool checkLastSeen,
                                            uint32_t connectTimeoutMsec) {
  ipcChannel_ = std::move(channel);
  maxLastSeenMsec_ = maxLastSeenMsec;
  setLdLibPath_ = setLdLibPath;
  checkLastSeen_ = checkLastSeen;
  connectTimeoutMsec_ = connectTimeoutMsec;
  SafeStrCopy(binaryName_, binaryName);
  if (dirPath != nullptr && dirPath[0] != '\0') {
    SafeStrCopy(dirPath_, dirPath);
    std::snprintf(fullPath_.data(), fullPath_.size(), "%s/%s", dirPath_.data(), binaryName_.data());
  }

  size_t argc = 0;
  argv_[argc++] = fullPath_.data();
  for (size_t i = 0; i < kMaxExtraArgs && extraArgs != nullptr && extraArgs[i] != nullptr; ++i) {
    // execve takes non-const pointers but never writes through them.
    argv_[argc++] = const_cast<char*>(extraArgs[i]);
  }
  argv_[argc] = nullptr;

  if (ipcChannel_ &&
      ipcChannel_->RegisterHandler(CommandId(WatchdogCommand::STATUS_NOTIFY),
                                   MonitoredProcessNotifyHandler, this) != StatusCode::SUCCESS) {
    QWD_LOG_ERROR(kComponent, "Failed registering status notify handler for %s\n",
                  binaryName_.data());
  }
  QWD_LOG_VERBOSE(kComponent, "Created Monitored process object for process '%s' at '%s'\n",
                  binaryName_.data(), dirPath_.data());
}

MonitoredProcess::~MonitoredProcess() {
  QWD_LOG_VERBOSE(kComponent, "Destroying Monitored process object for process '%s'\n",
                  binaryName_.data());
}

const char* MonitoredProcess::GetName() { return binaryName_.data(); }

IpcChannel* MonitoredProcess::GetIpcChannel() { return ipcChannel_.get(); }

void MonitoredProcess::CheckResources() {
  SysResMon::CheckProcessResConsumption(binaryName_.data(), files_, kMemoryStepKb, maxRssKb_,
                                        maxOpenFds_);
}

bool MonitoredProcess::PidFilePath(char (&path)[512]) const {
  const char* dir = Config::GetStrValue(CFG_PID_FILE_PATH);
  if (dir == nullptr || dir[0] == '\0' || pid_ < 1) return false;
  std::snprintf(path, sizeof(path), "%s%s.pid", dir, binaryName_.data());
  return true;
}

StatusCode MonitoredProcess::WriteOwnPidFile() const {
  char path[512];
  if (!PidFilePath(path)) return StatusCode::FAILURE;
  return WritePidFile(pid_, path);
}

void MonitoredProcess::RemoveOwnPidFile() const {
  char path[512];
  if (PidFilePath(path)) std::remove(path);
}

void MonitoredProcess::CheckStatus() {
  if (GetStatus() == MonitoredEntityStatus::RESTART) return;
  if (pid_ == -1) {
    SetStatus(MonitoredEntityStatus::UNKNOWN);
    return;
  }
  // cmdline separates the arguments with NULs: the text read is argv[0]. A
  // zombie's reads empty, and a reaped process's held file fails.
  char cmdline[256];
  if (ReadCommandLine(cmdline, sizeof(cmdline)) <= 0) {
    QWD_LOG_ERROR(kComponent, "Failed reading from process '%s' command line file, pid %d\n",
                  binaryName_.data(), pid_);
    SetStatus(MonitoredEntityStatus::UNKNOWN);
    return;
  }
  if (std::strstr(cmdline, binaryName_.data()) == nullptr) {
    QWD_LOG_ERROR(kComponent, "Process '%s' cmdline is '%s'\n", binaryName_.data(), cmdline);
    SetStatus(MonitoredEntityStatus::UNKNOWN);
  }
  // Printed after a mismatch too: the pid may have been reused, and the
  // last-seen test below still applies.
  QWD_LOG_DEBUG(kComponent, "Process '%s' pid %d is OK!\n", binaryName_.data(), pid_);
  const int64_t now = GetCurrentTimeMsec();
  if (checkLastSeen_ && HasIntervalPassedMSec(now, lastSeenMsec_, maxLastSeenMsec_)) {
    QWD_LOG_INFO(kComponent,
                 "Process '%s' last seen before %llu msecs (max allowed %d msecs), setting state "
                 "to FAILED!\n",
                 binaryName_.data(), static_cast<unsigned long long>(now - lastSeenMsec_),
                 maxLastSeenMsec_);
    SetStatus(MonitoredEntityStatus::FAILED);
  }
}

ssize_t MonitoredProcess::ReadCommandLine(char* text, size_t size) {
  if (files_.Descriptor(SysResMon::ProcessFiles::kCmdline) < 0) {
    const int error = errno;
    char path[256];
    files_.Path(SysResMon::ProcessFiles::kCmdline, path, sizeof(path));
    QWD_LOG_ERROR(kComponent, "Failed opening file '%s', errno %s\n", path, std::strerror(error));
    return -1;
  }
  const ssize_t got = files_.Read(SysResMon::ProcessFiles::kCmdline, text, size);
  // Read as a line: a newline within the first argument ends it.
  char* newline = got > 0 ? static_cast<char*>(std::memchr(text, '\n', got)) : nullptr;
  if (newline != nullptr) newline[1] = '\0';
  return got;
}

StatusCode MonitoredProcess::UpdatePid(int32_t pid) {
  // Stop sends its SIGTERM and SIGKILLs to whatever pid was adopted: only -1
  // (no process) and processes the watchdog started may be.
  if (pid != -1 && (pid < 2 || pid == GetCachedPid())) {
    QWD_LOG_ERROR(kComponent, "Refusing PID %d from process '%s'\n", pid, binaryName_.data());
    return StatusCode::INVALID_PARAM;
  }
  // The launched child, its descendants, or an orphan of theirs (a daemonized
  // agent) that the watchdog inherited as their subreaper. The pid already
  // adopted was checked then.
  if (pid != -1 && pid != pid_ && !DescendsFrom(pid, GetCachedPid())) {
    QWD_LOG_ERROR(kComponent, "Refusing PID %d from process '%s': not started by the watchdog\n",
                  pid, binaryName_.data());
    return StatusCode::INVALID_PARAM;
  }
  const int64_t now = GetCurrentTimeMsec();
  QWD_LOG_DEBUG(kComponent,
                "Got update from process '%s' at '%s', new PID %d, last update before %llu msecs\n",
                binaryName_.data(), dirPath_.data(), pid,
                static_cast<unsigned long long>(now - lastSeenMsec_));
  if (pid != -1) lastSeenMsec_ = now;
  if (pid == pid_) return StatusCode::SUCCESS;
  QWD_LOG_ERROR(kComponent, "Changing PID for process '%s' from %d to %d\n", binaryName_.data(),
                pid_, pid);
  pid_ = pid;
  // Opened at once, while the pid is known to be the one just checked.
  files_.Open(pid);
  WriteOwnPidFile();
  return StatusCode::SUCCESS;
}

StatusCode MonitoredProcessNotifyHandler(const void* data, size_t dataLen, void* /*reply*/,
                                         size_t /*replySize*/, size_t* replyLen, void* context) {
  if (replyLen != nullptr) *replyLen = 0;
  auto* process = static_cast<MonitoredProcess*>(context);
  if (process == nullptr) {
    QWD_LOG_ERROR(kComponent,
                  "The monitored process notify handler got an empty monitored process object "
                  "parameter\n");
    return StatusCode::INVALID_PARAM;
  }
  // A short or unterminated payload must not send the checks past its end.
  StatusNotification note = DecodeRecord<StatusNotification>(data, dataLen);
  note.socketName.back() = '\0';
  note.message.back() = '\0';
  if (std::strcmp(note.socketName.data(), kUserAgentSocketName) != 0 &&
      std::strcmp(note.socketName.data(), kSystemExecSocketName) != 0) {
    QWD_LOG_ERROR(kComponent,
                  "The monitored process notify handler got a wrong socket name from the caller "
                  "('%s')\n",
                  note.socketName.data());
    return StatusCode::INVALID_PARAM;
  }
  if (note.ok != 0) {
    QWD_LOG_DEBUG(kComponent, "Got OK status notification from '%s', PID %d\n",
                  note.socketName.data(), note.pid);
    if (process->UpdatePid(note.pid) != StatusCode::SUCCESS) return StatusCode::INVALID_PARAM;
  } else {
    QWD_LOG_INFO(kComponent, "Got failure status notification with msg '%s'\n",
                 note.message.data());
    process->SetStatus(MonitoredEntityStatus::FAILED);
  }
  return StatusCode::SUCCESS;
}
