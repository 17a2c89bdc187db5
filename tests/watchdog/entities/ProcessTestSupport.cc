#include "tests/watchdog/entities/ProcessTestSupport.h"

#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "watchdog/Config.h"

void MonitoredProcessTest::SetUp() {
  Config::SetStrValue(CFG_PID_FILE_PATH, (pidDir_.path() + "/").c_str());
}

void MonitoredProcessTest::TearDown() { Config::ResetToDefaults(); }

std::unique_ptr<MonitoredProcess> MonitoredProcessTest::Child(const std::string& mode,
                                                              const std::vector<std::string>& extra,
                                                              uint32_t connectTimeoutMsec,
                                                              const IpcHandler* handlers,
                                                              int32_t handlerCount) {
  argStrings_ = {mode, kUserAgentSocketName};
  argStrings_.insert(argStrings_.end(), extra.begin(), extra.end());
  args_.clear();
  for (const std::string& arg : argStrings_) args_.push_back(arg.c_str());
  args_.push_back(nullptr);
  return CreateMonitoredProcess(QWD_TEST_CHILD_DIR, kChildName, args_.data(), "/lib", 20000, false,
                                true, kUserAgentSocketName, sizeof(StatusNotification), 4, handlers,
                                handlerCount, connectTimeoutMsec);
}

std::unique_ptr<MonitoredProcess> MonitoredProcessTest::Watched(const char* name,
                                                                bool checkLastSeen,
                                                                int32_t maxLastSeenMsec) {
  return CreateMonitoredProcess(nullptr, name, nullptr, "", maxLastSeenMsec, false, checkLastSeen,
                                nullptr, 0, 0, nullptr, 0, 0);
}

StatusCode MonitoredProcessTest::ServeOne(MonitoredProcess& process) {
  return process.GetIpcChannel()->ServerWaitAndProcess(5000);
}

int CountOwnDescriptors() {
  DIR* dir = opendir("/proc/self/fd");
  int count = 0;
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  // ".", ".." and the directory's own descriptor.
  return count - 3;
}

int CountOwnChildren() {
  DIR* dir = opendir("/proc");
  int count = 0;
  const std::string parent = std::to_string(getpid());
  for (const dirent* entry = readdir(dir); entry != nullptr; entry = readdir(dir)) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
    const std::string status = ReadWholeFile(std::string("/proc/") + entry->d_name + "/status");
    if (status.find("\nPPid:\t" + parent + "\n") != std::string::npos) ++count;
  }
  closedir(dir);
  return count;
}

pid_t MakeZombie() {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  AwaitExitWithoutReaping(pid);
  return pid;
}

pid_t MakeDeadPid() {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  waitpid(pid, nullptr, 0);
  return pid;
}

void AwaitExitWithoutReaping(pid_t pid) {
  siginfo_t info{};
  waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
}
