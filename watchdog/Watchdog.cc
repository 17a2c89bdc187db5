#include "watchdog/Watchdog.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "common/Log.h"
#include "common/ProcessUtils.h"
#include "watchdog/Config.h"

namespace {
constexpr uint32_t kComponent = LOGGER_COMPONENT_WATCHDOG;
constexpr size_t kPidFileNameSize = 512;
}  // namespace

const char* programName = nullptr;
volatile std::sig_atomic_t terminationRequested = 0;

int SetTermSignal() {
  struct sigaction action {};
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_SIGINFO | SA_RESETHAND;
  action.sa_sigaction = TermSignalHandler;
  return sigaction(SIGTERM, &action, nullptr);
}

void TermSignalHandler(int signalNumber, siginfo_t* /*info*/, void* /*context*/) {
  // The signal may land while this thread holds the logger's lock: this call
  // never waits for it, and the logger writes the line once the lock is free.
  QWD_LOG_FROM_SIGNAL(kComponent, LoggerLevel::INFO,
                      "Larkspan termination signal:%d stopping agent and exit\n", signalNumber);
  terminationRequested = 1;
}

Watchdog::~Watchdog() {
  if (childExitFd_ >= 0) close(childExitFd_);
}

void WatchdogExit(int status) {
  QWD_LOG_INFO(kComponent, "WatchDog exits (status %d)...\n", status);
  RemovePidFile(programName, GetCachedPid());
  std::exit(status);
}

void RemovePidFile(const char* name, pid_t pid) {
  const char* prefix = Config::GetStrValue(CFG_PID_FILE_PATH);
  if (pid < 1 || prefix[0] == '\0' || name == nullptr) return;
  char fileName[kPidFileNameSize];
  std::snprintf(fileName, sizeof(fileName), "%s%s.pid", prefix, name);
  std::remove(fileName);
}

void DumpConfigValues() {
  for (uint32_t key = 0; key < CFG_NUM_OF_KEYS; ++key) {
    const char* name = Config::GetName(key);
    const ConfigValueType type = Config::GetType(key);
    switch (type) {
      case CFG_TYPE_STRING:
        QWD_LOG_INFO(kComponent, "Config value '%s' = '%s'\n", name, Config::GetStrValue(key));
        continue;
      case CFG_TYPE_INT:
        QWD_LOG_INFO(kComponent, "Config value '%s' = %d\n", name,
                     static_cast<int>(Config::GetIntValue(key)));
        continue;
      case CFG_TYPE_BOOL:
        QWD_LOG_INFO(kComponent, "Config value '%s' = %s\n", name,
                     Config::GetBoolValue(key) ? "true" : "false");
        continue;
    }
    QWD_LOG_ERROR(kComponent, "Config value '%s', key %d type is %d?\n", name,
                  static_cast<int>(key), static_cast<int>(type));
  }
}
