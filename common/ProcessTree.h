#pragma once

// The watchdog's view of the processes below it, read from "<proc>/<pid>/stat"
// through the ProcFs seam. Its signals may reach only these: what it
// launched, their descendants and the orphans of theirs it inherited as a
// child subreaper.

#include <sys/types.h>

// One process's parent, process group and state letter ('Z' for a zombie);
// false when the process is gone or its stat cannot be read.
bool ReadProcessStat(pid_t pid, pid_t* parent, pid_t* group, char* state);
// Whether ancestor is reached by walking pid's chain of parents (pid itself
// excluded).
bool DescendsFrom(pid_t pid, pid_t ancestor);
// SIGKILL to every living descendant of ancestor or, when `group` is above 0,
// to every member of that process group, until a pass finds none (a few
// passes at most, so that a forking process cannot hold the caller).
void KillDescendants(pid_t ancestor, pid_t group);
