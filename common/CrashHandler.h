#pragma once

// The crash handler: a fault (SIGSEGV, SIGBUS, SIGFPE) becomes a stack trace
// on standard output and in a crash dump file, then the process aborts. It is
// installed once at start-up, before the logger exists, and never uses it:
// its lines are JSON lines of level "CRASH" written straight into the dump.
// Everything the handler needs is opened and warmed up at installation, so
// that at the crash nothing is left but formatting into its own buffers and
// write(2).

#include <cstdint>

// Opens "<directory>/<name>_<pid>.log" anew (emptied) and writes the START
// TRACE line to it and to standard output, then installs the one-shot handler
// (a second fault of the same kind ends the process without a trace). Without
// a directory only the handler is installed and it writes to standard output
// alone. False, after "Failed creating crash dump file <path>" on standard
// output, when the file cannot be created. The file is a regular file of mode
// 0644 opened without following links; the handler runs on an alternate
// stack, so a stack overflow leaves its dump too.
bool SetCrashHandler(const char* directory, const char* name, int32_t pid);

// Closes the dump file: a later fault is traced on standard output alone.
void CloseCrashDump();

// Where the handler takes the account id kept in its crash state
// ("DefaultAccountID" when the source is unset or gives an empty text); the
// watchdog passes the logger's, which keeps this layer free of the logger.
void SetCrashAccountIdSource(const char* (*getAccountId)());
