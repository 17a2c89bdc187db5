#pragma once

// What went wrong at start-up, told on standard error in one line each. The
// log files hold the full story, but they may not exist yet and a person who
// starts the watchdog by hand looks at the console. Standard output and the
// log keep their own lines: these are said beside them, never instead.

namespace StartupReport {

// "quillmorWD: ", the formatted text and a newline, on standard error.
void Say(const char* format, ...) __attribute__((format(printf, 1, 2)));

// A notice when the configuration file is absent, unreadable or a directory:
// the watchdog then runs on its defaults, which is allowed but seldom meant.
void CheckConfigFile(const char* path);

// A line for each of the agent and system-exec programs missing from the
// version directory: their starts would fail over and over, into the
// critical-error sleep, with nothing said on the console.
void CheckPrograms(const char* versionDir);

}  // namespace StartupReport
