// Launching and stopping a monitored process: fork and execve, the wait for
// its connection, and the stop escalation.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/CleanExec.h"
#include "common/Clock.h"
#include "common/FileUtils.h"
#include "common/Log.h"
#include "common/ProcRoot.h"
#include "common/ProcessTree.h"
#include "common/ProcessUtils.h"
#include "common/TimeUtils.h"
#include "watchdog/Termination.h"
#include "watchdog/entities/MonitoredProcess.h"

extern char** environ;

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_WATCHDOG;
// The escalation's numbers are fixed: a grace of 100 ms after SIGTERM, then
// one-second rounds, SIGKILL every 50 of them, 600 at most.
constexpr uint32_t kTermGraceMsec = 100;
constexpr int kStopRounds = 600;
constexpr int kKillEveryRounds = 50;
constexpr int kStopRoundMsec = 1000;
// Once termination is requested the whole exit has two seconds: SIGKILL at
// once, looked at every 50 ms, for a second at most.
constexpr uint32_t kTerminationCheckMsec = 50;
constexpr int kTerminationKills = 20;
// Within the grace, how often the stop looks for the exit: the grace is a
// ceiling, and a process that is quick to go is not waited for any longer.
constexpr uint32_t kExitPollMsec = 1;

// One round's sleep, cut short once termination is requested.
void SleepRound() {
  for (int slept = 0; slept < kStopRoundMsec && terminationRequested == 0;
       slept += static_cast<int>(kTerminationCheckMsec)) {
    SleepMsec(kTerminationCheckMsec);
  }
}

}  // namespace

StatusCode MonitoredProcess::Start() {
  if (dirPath_[0] == '\0' || binaryName_[0] == '\0') {
    SetStatus(MonitoredEntityStatus::RUNNING);
    return StatusCode::SUCCESS;
  }
  if (ipcChannel_) std::remove(ipcChannel_->GetChannelId());
  if (!ipcChannel_ || ipcChannel_->ServerInit() != StatusCode::SUCCESS) {
    QWD_LOG_ERROR(kComponent, "Failed initialing WD-agent IPC server end. Exiting...\n");
    return StatusCode::FAILURE;
  }
  if (!FileExists(fullPath_.data())) {
    const int error = errno;
    QWD_LOG_ERROR(kComponent, "Problem with %s, errno %s(%d)\n", fullPath_.data(),
                  std::strerror(error), error);
    return StatusCode::FAILURE;
  }
  const pid_t child = fork();
  if (child < 0) {
    const int error = errno;
    QWD_LOG_ERROR(kComponent, "Fork failed, errno %s(%d)\n", std::strerror(error), error);
    return StatusCode::FAILURE;
  }
  if (child == 0) {
    PrepareExec(true);
    execve(fullPath_.data(), argv_.data(), environ);
    const int error = errno;
    std::printf("execv for process '%s' failed, errno %s(%d)\n", fullPath_.data(),
                std::strerror(error), error);
    std::fflush(stdout);
    // No exit handlers: they belong to the watchdog, not to this copy of it.
    _exit(-1);
  }
  // Set on both sides: the group must exist before a stop can aim at it.
  setpgid(child, child);
  launchedPid_ = child;
  QWD_LOG_INFO(kComponent, "Launched process '%s' at '%s', pid %d\n", binaryName_.data(),
               dirPath_.data(), child);
  maxRssKb_ = 0;
  maxOpenFds_ = 0;
  pid_ = child;
  files_.Open(child);
  SetStatus(MonitoredEntityStatus::RUNNING);
  lastSeenMsec_ = GetCurrentTimeMsec();
  if (ipcChannel_->ServerAccept(static_cast<int32_t>(connectTimeoutMsec_)) != StatusCode::SUCCESS) {
    QWD_LOG_ERROR(kComponent, "Failed waiting for the process %s to connect to the IPC channel\n",
                  binaryName_.data());
    return StatusCode::FAILURE;
  }
  QWD_LOG_DEBUG(kComponent, "Established connection with %s\n", binaryName_.data());
  WriteOwnPidFile();
  return StatusCode::SUCCESS;
}

StatusCode MonitoredProcess::Stop() {
  QWD_LOG_VERBOSE(kComponent, "Disconnecting and cleaning up the IPC channel of '%s'\n",
                  binaryName_.data());
  if (ipcChannel_) {
    ipcChannel_->CloseConnection();
    ipcChannel_->CloseServerSocket();
  }
  const StatusCode result = StopPid();
  // Whatever the adopted pid was, nothing of the launched child's group
  // outlives its stop (the loop reaps what dies).
  if (launchedPid_ > 0) KillDescendants(GetCachedPid(), launchedPid_);
  launchedPid_ = -1;
  return result;
}

StatusCode MonitoredProcess::StopPid() {
  QWD_LOG_VERBOSE(kComponent, "trying to stop process '%s', pid %d\n", fullPath_.data(), pid_);
  // kill() would read 0 and other negatives as process groups, the
  // watchdog's own included: only real pids are signalled.
  if (pid_ < 1) {
    QWD_LOG_WARN(kComponent, "Can't stop process '%s' with pid %d!\n", fullPath_.data(), pid_);
    return StatusCode::INVALID_PARAM;
  }
  RemoveOwnPidFile();
  if (kill(pid_, SIGTERM) != 0) {
    const int error = errno;
    if (error == ESRCH) {
      QWD_LOG_WARN(kComponent,
                   "Tried killing process with pid %d, binary %s, but it is already dead\n", pid_,
                   binaryName_.data());
      return FinishStop(MonitoredEntityStatus::NOT_RUNNING, StatusCode::SUCCESS);
    }
    QWD_LOG_ERROR(kComponent, "Failed killing process with pid %d, binary '%s', errno %s\n", pid_,
                  binaryName_.data(), std::strerror(error));
    return FinishStop(MonitoredEntityStatus::FAILED, StatusCode::FAILURE);
  }
  AwaitExit(kTermGraceMsec);
  // A process the watchdog did not launch is no child of it: never waited for.
  bool reaped = fullPath_[0] == '\0';
  for (int round = 0; round < kStopRounds;) {
    if (!reaped) reaped = ReapChild();
    if (IsProcessGone() || (terminationRequested != 0 && KillForTermination())) {
      QWD_LOG_DEBUG(kComponent, "Process %d is dead\n", pid_);
      QWD_LOG_VERBOSE(kComponent, "Stopped process '%s' (pid %d) at '%s' successfully\n",
                      binaryName_.data(), pid_, dirPath_.data());
      return FinishStop(MonitoredEntityStatus::NOT_RUNNING, StatusCode::SUCCESS);
    }
    if (terminationRequested != 0) {
      QWD_LOG_ERROR(kComponent, "Process %s (pid %d) outlived its SIGKILLs at termination\n",
                    binaryName_.data(), pid_);
      return FinishStop(MonitoredEntityStatus::FAILED, StatusCode::FAILURE);
    }
    ++round;
    if (round % kKillEveryRounds == 0) {
      kill(pid_, SIGKILL);
      QWD_LOG_VERBOSE(kComponent,
                      "Killing pid %d, binary '%s' after previous attempt didn't succeed\n", pid_,
                      binaryName_.data());
    }
    SleepRound();
  }
  QWD_LOG_ERROR(kComponent,
                "Process %s (pid %d) remained alive %d milli-seconds after first trying to kill "
                "it\n",
                binaryName_.data(), pid_, kStopRounds * kStopRoundMsec);
  return FinishStop(MonitoredEntityStatus::FAILED, StatusCode::FAILURE);
}

bool MonitoredProcess::ReapChild() {
  int waitStatus = 0;
  const pid_t result = waitpid(pid_, &waitStatus, WNOHANG);
  const int error = errno;
  if (result == pid_) {
    if (WIFEXITED(waitStatus)) {
      QWD_LOG_INFO(kComponent, "process '%s' exited with ret code %d\n", fullPath_.data(),
                   WEXITSTATUS(waitStatus));
    } else {
      QWD_LOG_ERROR(kComponent, "process '%s' didn't exit, probably killed or crashed\n",
                    fullPath_.data());
    }
    return true;
  }
  if (result == 0 || (result == -1 && error == EINTR)) return false;
  QWD_LOG_ERROR(kComponent, "Failed waitpid for process '%s', pid %d, got %d, errno %s(%d)\n",
                fullPath_.data(), pid_, result, std::strerror(error), error);
  return true;
}

bool MonitoredProcess::KillForTermination() {
  QWD_LOG_WARN(kComponent, "Termination requested: killing pid %d, binary '%s' at once\n", pid_,
               binaryName_.data());
  for (int kills = 0; kills < kTerminationKills; ++kills) {
    kill(pid_, SIGKILL);
    AwaitExit(kTerminationCheckMsec);
    if (fullPath_[0] != '\0') waitpid(pid_, nullptr, WNOHANG);
    if (IsProcessGone()) return true;
  }
  return false;
}

void MonitoredProcess::AwaitExit(uint32_t ceilingMsec) const {
  const int64_t deadline = GetCurrentTimeMsec() + ceilingMsec;
  while (GetCurrentTimeMsec() < deadline && !HasExited()) SleepMsec(kExitPollMsec);
}

bool MonitoredProcess::HasExited() const {
  // A child of the watchdog shows its exit without being reaped (the stop
  // reaps it, and logs how it ended); any other pid is gone or still there.
  siginfo_t info{};
  if (waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0) {
    return info.si_pid == pid_;
  }
  return errno == ECHILD && kill(pid_, 0) != 0 && errno == ESRCH;
}

bool MonitoredProcess::IsProcessGone() const {
  char path[64] = {};
  std::snprintf(path, sizeof(path), "%s/%d", GetProcRoot(), pid_);
  if (access(path, F_OK) != 0) {
    const int error = errno;
    if (error == ENOENT) return true;
    QWD_LOG_ERROR(kComponent, "opendir on /proc/%d failed. errno = %d\n", pid_, error);
    return false;
  }
  // A zombie takes no more signals; it is reaped by its parent or, once
  // that is gone, by the watchdog. A stop never waits on one.
  pid_t parent = 0, group = 0;
  char state = 0;
  if (ReadProcessStat(pid_, &parent, &group, &state) && state == 'Z') return true;
  QWD_LOG_WARN(kComponent, "Process %d is still running\n", pid_);
  return false;
}

StatusCode MonitoredProcess::FinishStop(MonitoredEntityStatus status, StatusCode result) {
  files_.Close();
  pid_ = -1;
  SetStatus(status);
  return result;
}
