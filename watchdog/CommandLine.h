#pragma once

// The argument phase of the watchdog: where its configuration file is. The
// logger does not exist yet, so everything here is printed on standard output.

#include <array>
#include <cstddef>

// The configuration path: at most 511 characters and the terminator.
constexpr size_t kConfigPathSize = 512;

namespace CommandLine {

// Fills path from "-f <path>" (a later -f replaces an earlier one; "-r <id>" is
// accepted and ignored) or, for exactly nine arguments, with "watchdog.cfg"
// beside the executable. False, after the usage text, when no path results.
bool GetConfigPath(int argc, char* const argv[], std::array<char, kConfigPathSize>& path);

}  // namespace CommandLine
