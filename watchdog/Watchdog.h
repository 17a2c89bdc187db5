#pragma once

// Process-wide state of the watchdog and the ways it leaves the process.
// The start-up, the supervision loop and the upgrade path share these.

#include <sys/types.h>

#include <csignal>

// Last path component of argv[0], pointing into it (valid for the whole run);
// names the pid file.
extern const char* programName;
// 0 at start, set to 1 by TermSignalHandler and never cleared; polled by the loops.
extern volatile std::sig_atomic_t terminationRequested;

// Installs TermSignalHandler for SIGTERM as a one-shot handler: a second
// SIGTERM gets the default action. Returns the sigaction result.
int SetTermSignal();
// Only logs and sets terminationRequested: stopping is left to the loops.
void TermSignalHandler(int signalNumber, siginfo_t* info, void* context);

// Logs, removes the pid file and exits with status. Safe before the logger
// exists (the line is then dropped).
[[noreturn]] void WatchdogExit(int status);
// Removes "<pidFilePath><name>.pid" when pid is at least 1 and pidFilePath is
// set; pidFilePath is a prefix, not a directory.
void RemovePidFile(const char* name, pid_t pid);

// Logs every configuration value at INFO, in key order.
void DumpConfigValues();
