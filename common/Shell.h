#pragma once

// Running shell commands, behind one seam so that tests can see and script
// what would run. The default is the real system(3).

#include "common/Seam.h"

class Shell {
 public:
  virtual ~Shell() = default;
  // Runs the command with /bin/sh; the raw system() return code.
  virtual int System(const char* command) = 0;
};

template <>
Seam<Shell>& SeamOf<Shell>();

// The shell in force for the whole process.
Shell& GetShell();
// Installs a shell and returns the previous one; nullptr restores the real one.
Shell* InstallShell(Shell* shell);
