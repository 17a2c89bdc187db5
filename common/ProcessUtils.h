#pragma once

// Process identity and CPU placement.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "common/StatusCode.h"

// getpid(), read once and kept.
pid_t GetCachedPid();

// Directory of the running executable (from "<proc>/<pid>/exe") into buffer.
// A link that fills the buffer is left unterminated: pass one below its size.
StatusCode GetRunningFromPath(char* buffer, size_t size);

// Pins the process to CPU i (i < cpuCount) when bit (i mod 32) of mask is set.
// A count below 1 leaves the set empty, which the system refuses.
StatusCode CommonSetCpuAffinity(uint32_t mask, int32_t cpuCount);
