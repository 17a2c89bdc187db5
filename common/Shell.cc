#include "common/Shell.h"

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "common/CleanExec.h"
#include "common/Clock.h"
#include "common/Log.h"
#include "common/TimeUtils.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_INFRA_UTILS;
// How often a running command is looked at, at most: the delay of an interrupt.
constexpr uint32_t kCheckMsec = 20;

// A descriptor that polls readable once the process has ended (Linux 5.3 on,
// always close-on-exec); -1 where the kernel has none.
int OpenExitDescriptor(pid_t pid) {
#ifdef SYS_pidfd_open
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
  (void)pid;
  return -1;
#endif
}

// Until the child's next look: woken by its exit where the kernel tells it,
// else after a pause that doubles from 1 ms, so that a quick script (a
// restart's cleanup takes a few ms) is seen at once and a slow one costs
// few wake-ups. A signal (termination) cuts either short.
void AwaitChild(int exitFd, uint32_t& pauseMsec) {
  if (exitFd >= 0) {
    pollfd exited{exitFd, POLLIN, 0};
    poll(&exited, 1, static_cast<int>(kCheckMsec));
    return;
  }
  SleepMsec(pauseMsec);
  pauseMsec = pauseMsec * 2 < kCheckMsec ? pauseMsec * 2 : kCheckMsec;
}

// The wait status of the child, or -1: past the limit or on an interrupt the
// whole group is killed first.
int WaitForCommand(const char* command, pid_t child, uint32_t limitMsec,
                   const volatile std::sig_atomic_t* interrupt, int exitFd) {
  const int64_t start = GetCurrentTimeMsec();
  uint32_t pauseMsec = 1;
  for (;;) {
    int status = 0;
    const pid_t done = waitpid(child, &status, WNOHANG);
    if (done == child) return status;
    if (done < 0 && errno != EINTR) return -1;
    const bool late = GetCurrentTimeMsec() - start >= limitMsec;
    if (late || (interrupt != nullptr && *interrupt != 0)) {
      if (late) {
        QWD_LOG_ERROR(kComponent, "Command '%s' ran past its limit of %u ms: killed\n", command,
                      limitMsec);
      } else {
        QWD_LOG_ERROR(kComponent, "Command '%s' killed: termination requested\n", command);
      }
      kill(-child, SIGKILL);
      waitpid(child, nullptr, 0);
      return -1;
    }
    AwaitChild(exitFd, pauseMsec);
  }
}

class RealShell final : public Shell {
 public:
  int System(const char* command) override { return std::system(command); }
};

RealShell g_realShell;
Seam<Shell> g_shell(&g_realShell);

}  // namespace

int RunShellCommand(const char* command, uint32_t limitMsec,
                    const volatile std::sig_atomic_t* interrupt) {
  const pid_t child = fork();
  if (child < 0) return -1;
  if (child == 0) {
    PrepareExec(true);
    execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    _exit(127);
  }
  // Set on both sides: the group must exist before a kill can be aimed at it.
  setpgid(child, child);
  const int exitFd = OpenExitDescriptor(child);
  const int status = WaitForCommand(command, child, limitMsec, interrupt, exitFd);
  if (exitFd >= 0) close(exitFd);
  return status;
}

template <>
Seam<Shell>& SeamOf<Shell>() {
  return g_shell;
}

Shell& GetShell() { return g_shell.Get(); }

Shell* InstallShell(Shell* shell) { return g_shell.Install(shell); }

bool QuoteForShell(const char* text, char* out, size_t size) {
  size_t used = 0;
  const auto put = [&](const char* piece) {
    for (; *piece != '\0'; ++piece) {
      if (used + 1 >= size) return false;
      out[used++] = *piece;
    }
    return true;
  };
  bool fits = put("'");
  for (const char* c = text; fits && *c != '\0'; ++c) {
    const char one[2] = {*c, '\0'};
    fits = put(*c == '\'' ? "'\\''" : one);
  }
  fits = fits && put("'");
  if (size > 0) out[fits ? used : 0] = '\0';
  return fits;
}
