#pragma once

// What the two demo programs share: the arguments the watchdog passes, a
// prefixed line on standard output for everything they do, and staying
// connected with heartbeats until told otherwise.

#include <cstdint>
#include <memory>

#include "client/WatchdogClient.h"

struct DemoArgs {
  bool wd = false;                    // "--wd": launched by the watchdog
  bool safeMode = false;              // "--safe-mode"
  const char* dns = "";               // "--dns <servers>"
  const char* localVersionPath = "";  // "--local-version-path <path>"
  const char* action = nullptr;       // "--demo <action>": overrides the schedule
};

// False (after a usage line) for an argument it does not know.
bool ParseDemoArgs(int argc, char** argv, DemoArgs* args);

// "<name>[<pid>] <text>" on standard output, flushed at once.
void DemoSay(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Sets the name DemoSay prefixes, and makes SIGTERM (the watchdog's stop)
// end the program with status 0 after saying so.
void DemoStart(const char* name);

// Connects for the role and starts heartbeats every periodMsec; null (said)
// on failure.
std::unique_ptr<WatchdogClient> DemoConnect(WatchdogRole role, uint32_t periodMsec);

// Heartbeats go on for msec, or until they fail (the watchdog went away),
// after which the program ends with status 0.
void DemoRunFor(WatchdogClient& client, uint32_t msec);

// Reports a call's result.
void DemoReport(const char* what, StatusCode status);
