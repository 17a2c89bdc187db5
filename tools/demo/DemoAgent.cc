// The demo user agent. Launched by the watchdog it follows a schedule kept
// in a run counter beside its binary, so that each restart plays the next
// scene: run 1 asks for a log-level change, a new log generation, an
// account id and a memory limit, then a restart after 500 ms; runs 2 to 4
// crash after 2 s; later runs only heartbeat. In safe mode it heartbeats for
// 4 s, then asks for normal mode. "--demo ACTION" plays one scene instead:
// commands, crash, silent (stops heartbeating, still connected), safe-back,
// module (asks for the kernel module), module-crash (the same, then crashes)
// or quiet. QWD_DEMO_SCENES="SCENE ..." in the environment replaces the
// schedule: the normal-mode runs play its scenes in order, then quiet.

#include <limits.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/LogComponent.h"
#include "tools/demo/DemoProcess.h"

namespace {

constexpr uint32_t kHeartbeatMsec = 1000;
constexpr uint32_t kForever = UINT32_MAX;
constexpr uint32_t kVerbose = 1;
constexpr uint32_t kInfo = 2;
constexpr int kLastCrashRun = 4;

// Counts the normal-mode runs in a file beside the binary; the new count.
int NextRun() {
  char exe[PATH_MAX] = {};
  if (readlink("/proc/self/exe", exe, sizeof(exe) - 1) <= 0) return 1;
  std::string path(exe);
  path = path.substr(0, path.rfind('/') + 1) + ".demo-agent-runs";
  int runs = 0;
  if (FILE* in = std::fopen(path.c_str(), "r")) {
    if (std::fscanf(in, "%d", &runs) != 1) runs = 0;
    std::fclose(in);
  }
  if (FILE* out = std::fopen(path.c_str(), "w")) {
    std::fprintf(out, "%d\n", runs + 1);
    std::fclose(out);
  }
  return runs + 1;
}

void Commands(WatchdogClient& wd) {
  DemoReport("watchdog log level VERBOSE",
             wd.SetComponentLogLevel(LOGGER_COMPONENT_WATCHDOG, kVerbose));
  uint32_t generation = 0;
  DemoReport("new log generation", wd.IncreaseLogGeneration(&generation));
  DemoSay("the previous log generation was %u", generation);
  DemoReport("account id demo-account", wd.SetAccountId("demo-account"));
  // Far below any free memory: the check runs, nothing trips.
  DemoReport("memory limit 64 KB", wd.SetMemoryLimit(64 * 1024, false));
  int32_t pid = 0;
  DemoReport("watchdog pid", wd.GetWatchdogPid(&pid));
  DemoSay("the watchdog's pid is %d", pid);
  // Back to INFO, so that the rest of the story stays in the rotation.
  DemoReport("watchdog log level INFO", wd.SetComponentLogLevel(LOGGER_COMPONENT_WATCHDOG, kInfo));
}

[[noreturn]] void Crash() {
  DemoSay("crashing now (SIGABRT)");
  const rlimit noCore{0, 0};
  setrlimit(RLIMIT_CORE, &noCore);
  std::abort();
}

void Play(WatchdogClient& wd, const std::string& action) {
  if (action == "commands") {
    DemoRunFor(wd, 2000);
    Commands(wd);
    DemoRunFor(wd, 1000);
    DemoReport("restart all in 500 ms", wd.RestartAll(500));
  } else if (action == "crash") {
    DemoRunFor(wd, 2000);
    Crash();
  } else if (action == "silent") {
    DemoRunFor(wd, 2000);
    wd.StopHeartbeat();
    DemoSay("going silent: connected, no more heartbeats");
    pause();
  } else if (action == "module" || action == "module-crash") {
    // A moment first, so that a module unloaded by the last stop is seen gone.
    DemoRunFor(wd, 2000);
    int32_t moduleStatus = 0;
    DemoReport("load the kernel module", wd.LoadKernelModule(&moduleStatus));
    DemoSay("the kernel module's status is %d", moduleStatus);
    if (action == "module-crash") {
      DemoRunFor(wd, 3000);
      Crash();
    }
  } else if (action == "safe-back") {
    DemoRunFor(wd, 4000);
    DemoReport("back to normal mode", wd.RequestOperationalMode(0));
  }
  DemoRunFor(wd, kForever);
}

// The run's word of a blank-separated scene list; quiet past its end.
const char* NthScene(const char* scenes, int run) {
  static std::string words;
  words = scenes;
  char* save = nullptr;
  for (char* word = strtok_r(words.data(), " ", &save); word != nullptr;
       word = strtok_r(nullptr, " ", &save)) {
    if (--run == 0) return word;
  }
  return "quiet";
}

const char* ScheduledAction(const DemoArgs& args) {
  if (args.safeMode) return "safe-back";
  const int run = NextRun();
  DemoSay("normal-mode run %d", run);
  if (const char* scenes = std::getenv("QWD_DEMO_SCENES")) return NthScene(scenes, run);
  if (run == 1) return "commands";
  return run <= kLastCrashRun ? "crash" : "quiet";
}

}  // namespace

int main(int argc, char** argv) {
  DemoStart("demo-agent");
  DemoArgs args;
  if (!ParseDemoArgs(argc, argv, &args)) return 2;
  DemoSay("started%s%s, dns %s%s%s", args.wd ? " by the watchdog" : "",
          args.safeMode ? " in safe mode" : "", args.dns,
          *args.localVersionPath != '\0' ? ", local version " : "", args.localVersionPath);
  std::unique_ptr<WatchdogClient> wd = DemoConnect(WatchdogRole::USER_AGENT, kHeartbeatMsec);
  if (!wd) return 1;
  const char* action = args.action != nullptr ? args.action : ScheduledAction(args);
  DemoSay("scene: %s", action);
  Play(*wd, action);
  return 0;
}
