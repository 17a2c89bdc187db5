#pragma once

// Running shell commands, behind one seam so that tests can see and script
// what would run. System is the real system(3); Run is the bounded runner
// the watchdog uses for every command of its own.

#include <csignal>
#include <cstddef>
#include <cstdint>

#include "common/Seam.h"

// The real runner behind Shell::Run.
int RunShellCommand(const char* command, uint32_t limitMsec,
                    const volatile std::sig_atomic_t* interrupt);

// text as one single-quoted shell word (a quote becomes '\''), so that no
// blank or metacharacter in a path is ever parsed. False when it does not fit.
bool QuoteForShell(const char* text, char* out, size_t size);

// Longest any command the watchdog runs through a shell may take: a script
// that hangs must not hold supervision.
constexpr uint32_t kShellCommandLimitMsec = 60000;

class Shell {
 public:
  virtual ~Shell() = default;
  // Runs the command with /bin/sh; the raw system() return code.
  virtual int System(const char* command) = 0;
  // Runs the command with /bin/sh -c in a process group of its own, started
  // clean (see CleanExec.h); the wait status. Past limitMsec, or as soon as
  // *interrupt (when given) is non-zero, the whole group gets SIGKILL, an
  // ERROR names the cause and the result is -1, as for a shell that could
  // not run. (Not pure, so that fakes scripting only System keep building;
  // inline, so that the interface has no key function in the RTTI-free
  // library.)
  virtual int Run(const char* command, uint32_t limitMsec,
                  const volatile std::sig_atomic_t* interrupt) {
    return RunShellCommand(command, limitMsec, interrupt);
  }
};

template <>
Seam<Shell>& SeamOf<Shell>();

// The shell in force for the whole process.
Shell& GetShell();
// Installs a shell and returns the previous one; nullptr restores the real one.
Shell* InstallShell(Shell* shell);
