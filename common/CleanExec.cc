#include "common/CleanExec.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>

namespace {

// Descriptors looked at when the list of open ones cannot be read.
constexpr int kMaxScannedFd = 4096;

void CloseOnExec(int fd) { fcntl(fd, F_SETFD, FD_CLOEXEC); }

}  // namespace

void PrepareExec(bool ownGroup) {
  if (ownGroup) setpgid(0, 0);
  for (int number = 1; number < NSIG; ++number) {
    if (number != SIGKILL && number != SIGSTOP) signal(number, SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  // Marked, not closed: a failed exec still has its descriptors (the log).
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) {
    for (int fd = 3; fd < kMaxScannedFd; ++fd) CloseOnExec(fd);
    return;
  }
  while (const dirent* entry = readdir(dir)) {
    const int fd = std::atoi(entry->d_name);
    if (fd > 2) CloseOnExec(fd);
  }
  closedir(dir);
}
