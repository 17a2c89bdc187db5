// The small child that bench/compare_supervisors.sh supervises, under
// quillmorWD and under runsv alike: it notes its start, connects to the
// watchdog's socket of its role (named by its argv[0]), notes its first
// heartbeat and every one after, every 2 s, on the client library. Named "run" (the
// service of runsv or s6-supervise) it only sleeps. The notes are "<name>
// <event> <CLOCK_REALTIME us> <pid>" lines appended to $QWD_BENCH_MARKS.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "client/WatchdogClient.h"

namespace {

constexpr uint32_t kHeartbeatMsec = 2000;

void Mark(const char* name, const char* event) {
  const char* path = std::getenv("QWD_BENCH_MARKS");
  if (path == nullptr) return;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  char line[160];
  const int length =
      std::snprintf(line, sizeof(line), "%s %s %lld %d\n", name, event,
                    static_cast<long long>(now.tv_sec) * 1000000 + now.tv_nsec / 1000, getpid());
  const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return;
  if (write(fd, line, static_cast<size_t>(length)) != length) std::perror("mark");
  close(fd);
}

[[noreturn]] void SleepForEver() {
  for (;;) pause();
}

}  // namespace

int main(int, char** argv) {
  const char* slash = std::strrchr(argv[0], '/');
  const char* name = slash != nullptr ? slash + 1 : argv[0];
  Mark(name, "start");
  const WatchdogRole role = std::strcmp(name, "quillmorSystemExec") == 0 ? WatchdogRole::SYSTEM_EXEC
                                                                         : WatchdogRole::USER_AGENT;
  if (std::strcmp(name, "run") == 0) SleepForEver();
  std::unique_ptr<WatchdogClient> wd = CreateWatchdogClient(role);
  if (!wd || wd->Connect() != StatusCode::SUCCESS) return 3;
  // Every heartbeat is marked, so that the bench can time a kill against the cycle.
  while (wd->NotifyStatus(true, nullptr) == StatusCode::SUCCESS) {
    Mark(name, "beat");
    usleep(kHeartbeatMsec * 1000);
  }
  return 0;
}
