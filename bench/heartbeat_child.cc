// The small child that bench/compare_supervisors.sh supervises, under
// quillmorWD and under runsv alike: it notes its start, connects to the
// watchdog's socket of its role (named by its argv[0]), notes its first
// heartbeat and heartbeats every 2 s on the client library. With
// $QWD_BENCH_ALONE set (under runsv) it only sleeps. The notes are "<name>
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
  if (std::getenv("QWD_BENCH_ALONE") != nullptr) SleepForEver();
  std::unique_ptr<WatchdogClient> wd = CreateWatchdogClient(role);
  if (!wd || wd->Connect() != StatusCode::SUCCESS) return 3;
  if (wd->NotifyStatus(true, nullptr) != StatusCode::SUCCESS) return 4;
  Mark(name, "beat");
  if (wd->StartHeartbeat(kHeartbeatMsec) != StatusCode::SUCCESS) return 5;
  while (wd->HeartbeatStatus() == StatusCode::SUCCESS) sleep(1);
  return 0;
}
