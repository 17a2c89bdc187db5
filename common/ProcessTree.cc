#include "common/ProcessTree.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/Clock.h"
#include "common/ProcRoot.h"
#include "common/io/DirWalk.h"

namespace {

// Deeper chains than this are not the watchdog's: no loop can hold the walk.
constexpr int kMaxDepth = 64;
constexpr int kKillPasses = 5;
// Lets the killed ones die before the next pass looks again.
constexpr uint32_t kKillPauseMsec = 20;

// One pass: the number of processes signalled.
int KillPass(pid_t ancestor, pid_t group) {
  DirWalk dir(GetProcRoot());
  int signalled = 0;
  while (const dirent* entry = dir.Next()) {
    char* end = nullptr;
    const long pid = std::strtol(entry->d_name, &end, 10);
    pid_t parent = 0, pgid = 0;
    char state = 0;
    if (*end != '\0' || pid < 2 ||
        !ReadProcessStat(static_cast<pid_t>(pid), &parent, &pgid, &state) || state == 'Z') {
      continue;
    }
    // The launched child's group is the watchdog's own making, and an orphan
    // stays in it where no subreaper adopts it (a kernel or an emulator
    // without one): its members need no ancestry.
    if (group > 0 ? pgid != group : !DescendsFrom(static_cast<pid_t>(pid), ancestor)) continue;
    if (kill(static_cast<pid_t>(pid), SIGKILL) == 0) ++signalled;
  }
  return signalled;
}

// Whether a pass could find nobody, told without reading every process's
// stat: the group is empty, or the caller itself has no child at all (alive
// or not), so no descendant either, since its orphans come back to it.
bool NothingToKill(pid_t ancestor, pid_t group) {
  if (group > 0) return kill(-group, 0) != 0 && errno == ESRCH;
  siginfo_t info{};
  return ancestor == getpid() && waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 &&
         errno == ECHILD;
}

}  // namespace

bool ReadProcessStat(pid_t pid, pid_t* parent, pid_t* group, char* state) {
  char path[64];
  std::snprintf(path, sizeof(path), "%s/%d/stat", GetProcRoot(), static_cast<int>(pid));
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char stat[512];
  const ssize_t got = read(fd, stat, sizeof(stat) - 1);
  close(fd);
  if (got <= 0) return false;
  stat[got] = '\0';
  // The command name in parentheses may hold anything, ')' included.
  const char* close = std::strrchr(stat, ')');
  int ppid = 0, pgrp = 0;
  if (close == nullptr || std::sscanf(close + 1, " %c %d %d", state, &ppid, &pgrp) != 3)
    return false;
  *parent = ppid;
  *group = pgrp;
  return true;
}

bool DescendsFrom(pid_t pid, pid_t ancestor) {
  for (int depth = 0; depth < kMaxDepth && pid > 1; ++depth) {
    pid_t group = 0;
    char state = 0;
    if (!ReadProcessStat(pid, &pid, &group, &state)) return false;
    if (pid == ancestor) return true;
  }
  return false;
}

void KillDescendants(pid_t ancestor, pid_t group) {
  if (NothingToKill(ancestor, group)) return;
  for (int pass = 0; pass < kKillPasses && KillPass(ancestor, group) > 0; ++pass) {
    SleepMsec(kKillPauseMsec);
  }
}
