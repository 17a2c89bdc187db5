#include "watchdog/CommandLine.h"

#include <cstdio>
#include <cstring>

#include "common/ProcessUtils.h"
#include "common/StringUtils.h"

namespace {

void PrintUsage() { std::puts("Usage:\nquillmorWD -f <config file path>"); }

bool PathBesideExecutable(std::array<char, kConfigPathSize>& path) {
  // One below the buffer: a directory that fills it stays terminated by the fill.
  path.fill('\0');
  if (GetRunningFromPath(path.data(), path.size() - 1) != StatusCode::SUCCESS) return false;
  const size_t used = std::strlen(path.data());
  SafeStrCopy(path.data() + used, path.size() - used, "/watchdog.cfg");
  std::printf("Will attempt to read WD config from '%s'\n", path.data());
  return true;
}

// Options come in pairs; a value left without its option is read as an
// option and refused.
bool WalkOptions(int argc, char* const argv[], std::array<char, kConfigPathSize>& path) {
  const int last = argc - 1;
  bool found = false;
  for (int i = 1; i < argc; i += 2) {
    if (std::strcmp(argv[i], "-r") == 0) {
      if (i == last) {
        std::printf("Arg %d is '-r', argc is %d, no more args for router ID!\n", i, argc);
        return false;
      }
    } else if (std::strcmp(argv[i], "-f") == 0) {
      if (i == last) {
        std::printf("Arg %d is '-f', argc is %d, no more args for config file path!\n", i, argc);
        return false;
      }
      std::printf("Found config file path '%s'\n", argv[i + 1]);
      SafeStrCopy(path, argv[i + 1]);
      found = true;
    } else {
      std::printf("Unidentified cmd line arg '%s'\n", argv[i]);
      return false;
    }
  }
  return found;
}

}  // namespace

namespace CommandLine {

bool GetConfigPath(int argc, char* const argv[], std::array<char, kConfigPathSize>& path) {
  // Exactly nine arguments are deliberately not examined at all: the file
  // beside the executable is read instead.
  const bool found =
      argc == 9 ? PathBesideExecutable(path) : argc >= 2 && WalkOptions(argc, argv, path);
  if (!found) PrintUsage();
  return found;
}

}  // namespace CommandLine
