#pragma once

// Root of the process file system, "/proc" unless a test points it at a
// prepared tree: by path with SetProcRoot, or with a ProcFs of its own on the
// seam. Everything read from /proc goes below it, the kernel's module list
// included.

#include <cstddef>

#include "common/Seam.h"

class ProcFs {
 public:
  virtual ~ProcFs() = default;
  // The directory that stands for /proc, without a trailing slash.
  virtual const char* Root() = 0;
};

template <>
Seam<ProcFs>& SeamOf<ProcFs>();

const char* GetProcRoot();
// Copies root (at most 255 characters) and installs it; nullptr restores
// "/proc".
void SetProcRoot(const char* root);
