// The demo system-exec process: connects to its socket, reports the
// watchdog's pid and heartbeats until the watchdog stops it or goes away.
// "--demo crash" crashes it after 2 s instead.

#include <cstdlib>
#include <cstring>

#include "tools/demo/DemoProcess.h"

namespace {

constexpr uint32_t kHeartbeatMsec = 2000;

}  // namespace

int main(int argc, char** argv) {
  DemoStart("demo-system-exec");
  DemoArgs args;
  if (!ParseDemoArgs(argc, argv, &args)) return 2;
  DemoSay("started%s", args.wd ? " by the watchdog" : "");
  std::unique_ptr<WatchdogClient> wd = DemoConnect(WatchdogRole::SYSTEM_EXEC, kHeartbeatMsec);
  if (!wd) return 1;
  int32_t pid = 0;
  DemoReport("watchdog pid", wd->GetWatchdogPid(&pid));
  DemoSay("serving; the watchdog's pid is %d", pid);
  if (args.action != nullptr && std::strcmp(args.action, "crash") == 0) {
    DemoRunFor(*wd, 2000);
    DemoSay("crashing now (SIGABRT)");
    std::abort();
  }
  DemoRunFor(*wd, UINT32_MAX);
  return 0;
}
