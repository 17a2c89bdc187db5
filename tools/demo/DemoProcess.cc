#include "tools/demo/DemoProcess.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/Clock.h"

namespace {

const char* g_name = "demo";
constexpr uint32_t kPollMsec = 100;
// Said by the SIGTERM handler, which can only write(2) what is ready.
char g_stopLine[128];
size_t g_stopLineLength = 0;

void StopOnTerm(int) {
  (void)!write(STDOUT_FILENO, g_stopLine, g_stopLineLength);
  _exit(0);
}

}  // namespace

void DemoStart(const char* name) {
  g_name = name;
  const int length =
      std::snprintf(g_stopLine, sizeof(g_stopLine), "%s[%d] stopped by the watchdog (SIGTERM)\n",
                    name, static_cast<int>(getpid()));
  g_stopLineLength = length > 0 ? std::min(static_cast<size_t>(length), sizeof(g_stopLine) - 1) : 0;
  signal(SIGTERM, StopOnTerm);
}

void DemoSay(const char* format, ...) {
  std::printf("%s[%d] ", g_name, static_cast<int>(getpid()));
  va_list args;
  va_start(args, format);
  std::vprintf(format, args);
  va_end(args);
  std::printf("\n");
  std::fflush(stdout);
}

bool ParseDemoArgs(int argc, char** argv, DemoArgs* args) {
  for (int i = 1; i < argc; ++i) {
    const bool hasValue = i + 1 < argc;
    if (std::strcmp(argv[i], "--wd") == 0) {
      args->wd = true;
    } else if (std::strcmp(argv[i], "--safe-mode") == 0) {
      args->safeMode = true;
    } else if (std::strcmp(argv[i], "--dns") == 0 && hasValue) {
      args->dns = argv[++i];
    } else if (std::strcmp(argv[i], "--local-version-path") == 0 && hasValue) {
      args->localVersionPath = argv[++i];
    } else if (std::strcmp(argv[i], "--demo") == 0 && hasValue) {
      args->action = argv[++i];
    } else {
      std::fprintf(stderr,
                   "usage: %s [--wd] [--safe-mode] [--dns SERVERS] [--local-version-path PATH] "
                   "[--demo ACTION]\n",
                   argv[0]);
      return false;
    }
  }
  return true;
}

std::unique_ptr<WatchdogClient> DemoConnect(WatchdogRole role, uint32_t periodMsec) {
  std::unique_ptr<WatchdogClient> client = CreateWatchdogClient(role);
  if (!client || client->Connect() != StatusCode::SUCCESS) {
    DemoSay("cannot connect to the watchdog");
    return nullptr;
  }
  if (client->StartHeartbeat(periodMsec) != StatusCode::SUCCESS) {
    DemoSay("cannot start the heartbeat");
    return nullptr;
  }
  DemoSay("connected; a heartbeat every %u ms", periodMsec);
  return client;
}

void DemoRunFor(WatchdogClient& client, uint32_t msec) {
  for (uint32_t waited = 0; waited < msec; waited += kPollMsec) {
    if (client.HeartbeatStatus() != StatusCode::SUCCESS) {
      DemoSay("the watchdog is gone; exiting");
      std::exit(0);
    }
    SleepMsec(kPollMsec);
  }
}

void DemoReport(const char* what, StatusCode status) {
  DemoSay("%s: %s", what, StatusCodeToStr(status));
}
