#include "common/ProcessUtils.h"

#include <libgen.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/ProcRoot.h"

namespace {
pid_t g_cachedPid = 0;
}  // namespace

pid_t GetCachedPid() {
  if (g_cachedPid == 0) g_cachedPid = getpid();
  return g_cachedPid;
}

StatusCode GetRunningFromPath(char* buffer, size_t size) {
  char link[512];
  std::snprintf(link, sizeof(link), "%s/%d/exe", GetProcRoot(), static_cast<int>(GetCachedPid()));
  const ssize_t len = readlink(link, buffer, size);
  if (len < 0) {
    std::printf("Failed obtaining link for %s\n, errno %s(%d)\n", link, std::strerror(errno),
                errno);
    return StatusCode::FAILURE;
  }
  if (static_cast<size_t>(len) < size) buffer[len] = '\0';
  // dirname() may rewrite its argument in place, so work on a terminated copy.
  char path[512] = {};
  const size_t copied =
      static_cast<size_t>(len) < sizeof(path) ? static_cast<size_t>(len) : sizeof(path) - 1;
  std::memcpy(path, buffer, copied);
  const char* dir = dirname(path);
  std::strncpy(buffer, dir, size);
  return StatusCode::SUCCESS;
}

StatusCode CommonSetCpuAffinity(uint32_t mask, int32_t cpuCount) {
  cpu_set_t set;
  CPU_ZERO(&set);
  for (int32_t i = 0; i < cpuCount && i < CPU_SETSIZE; ++i) {
    if ((mask >> (i % 32)) & 1u) CPU_SET(i, &set);
  }
  return sched_setaffinity(0, sizeof(set), &set) == 0 ? StatusCode::SUCCESS : StatusCode::FAILURE;
}
