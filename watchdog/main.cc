#include <sys/prctl.h>

#include <csignal>
#include <cstdio>
#include <cstring>

#include "watchdog/CommandLine.h"
#include "watchdog/Config.h"
#include "watchdog/StartupReport.h"
#include "watchdog/Watchdog.h"

namespace {

// Apart from main, so that the path's buffer is off the stack before the
// watchdog runs: the deepest the stack ever reaches stays private memory.
__attribute__((noinline)) bool LoadConfig(int argc, char* argv[]) {
  std::array<char, kConfigPathSize> configPath{};
  if (!CommandLine::GetConfigPath(argc, argv, configPath)) {
    StartupReport::Say("command line not understood: a configuration file is given with -f");
    return false;
  }
  if (!Config::Init(configPath.data())) {
    std::printf("Failed reading WD configuration from '%s'\n", configPath.data());
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char* argv[]) {
  // Standard output is the only voice before the logger exists: every message
  // must be out before an exit or a fork. Its buffer is static and small,
  // where the C library would take a page from the heap for good; a longer
  // line just goes out in more than one write.
  static char stdoutBuffer[256];
  std::setvbuf(stdout, stdoutBuffer, _IOLBF, sizeof(stdoutBuffer));
  std::signal(SIGHUP, SIG_IGN);
  std::signal(SIGPIPE, SIG_IGN);
  SetTermSignal();
  // Orphans of the children (a daemonized agent, a grandchild whose parent
  // died) become the watchdog's: still its descendants, still stopped by it.
  prctl(PR_SET_CHILD_SUBREAPER, 1);

  if (!LoadConfig(argc, argv)) return -1;
  const char* slash = std::strrchr(argv[0], '/');
  programName = slash != nullptr ? slash + 1 : argv[0];

  // Static, so that the ways out through exit() still close its channels.
  static Watchdog watchdog;
  watchdog.Init();
  return watchdog.Run();
}
