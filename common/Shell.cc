#include "common/Shell.h"

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
// How often a running command is looked at: the delay of an interrupt.
constexpr uint32_t kCheckMsec = 20;

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
  const int64_t start = GetCurrentTimeMsec();
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
    SleepMsec(kCheckMsec);
  }
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
