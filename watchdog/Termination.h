#pragma once

// The termination request, visible to everything that may have to cut a wait
// short for it: the loop, the stops and the cleanup.

#include <csignal>

// 0 at start, set to 1 by TermSignalHandler and never cleared; polled by the loops.
extern volatile std::sig_atomic_t terminationRequested;
