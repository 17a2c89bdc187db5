#pragma once

// The agent's installation on disk as the start-up and the upgrade prepare
// it: the version directory, the program and library links into it, the
// execute modes, the removal of older versions, and the resource limits
// report. Stateless; every failure is logged here.

#include <array>
#include <cstddef>

#include "common/StatusCode.h"

namespace Installation {

constexpr size_t kPathSize = 512;
constexpr size_t kDirNameSize = 257;
constexpr size_t kBaseNameSize = 65;

// False for an empty version, "N/A" or "undefined", which have no directory.
bool HasVersionDirectory(const char* version);
// "<downloadDir>/<version>" into dir, logged; false for an empty version,
// "N/A" or "undefined", which have no directory.
bool GetVersionDirectory(const char* version, char (&dir)[kPathSize]);
// Links "<versionDir>/<name>" at the five configured program and script
// paths; false after the first link that fails.
bool CreateProgramLinks(const char* versionDir);
// Links every entry of the version directory whose name contains ".so" into
// libPath; false when the directory can't be read or a link fails.
bool CreateSharedLibLinks(const char* versionDir);
// Sets exactly 0111 on the version's programs and scripts that lack an
// execute bit; failures are logged and skipped.
void SetExecModes(const char* version);
// Removes every directory of downloadDir whose name starts with a digit,
// but the running version's.
void RemovePreviousVersions(const char* version);
// Four INFO lines of the process's resource limits.
void ReportResourceLimits();
// dirname and basename of path, each cut to its buffer.
void SplitPath(const char* path, std::array<char, kDirNameSize>& dir,
               std::array<char, kBaseNameSize>& base);
// Whether a system() result means the command could not run at all.
bool ShellCommandFailed(int result);

}  // namespace Installation

// Replaces whatever is at linkPath by a link to "<directory>/<fileName>".
StatusCode CreateSymLink(const char* directory, const char* fileName, const char* linkPath);
