// qwd-log: reads the watchdog's (and the agent's) log files in the order they
// were written, across rotation, and prints them for people or as JSON Lines.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tools/qwd-log/LogFiles.h"
#include "tools/qwd-log/LogPrinter.h"
#include "tools/qwd-log/LogRecord.h"

namespace {

constexpr char kUsage[] =
    "Usage: qwd-log [--json] [--level LEVEL] [--component TEXT] [--follow] [DIR|FILE]...\n"
    "Prints log files and crash dumps (default directory: /var/log/quillmor).\n"
    "  --json            one JSON object per line\n"
    "  --level LEVEL     entries of LEVEL and above (DEBUG VERBOSE INFO WARN ERROR FATAL CRASH)\n"
    "  --component TEXT  entries whose source file or function contains TEXT\n"
    "  --follow, -f      keep reading as the files grow and rotate\n";
constexpr useconds_t kFollowPollUsec = 250 * 1000;

struct Options {
  bool json = false;
  bool follow = false;
  int minLevel = 0;
  std::string component;
  std::vector<std::string> paths;
};

bool ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool hasValue = i + 1 < argc;
    if (arg == "--json") {
      options->json = true;
    } else if (arg == "--follow" || arg == "-f") {
      options->follow = true;
    } else if (arg == "--level" && hasValue) {
      options->minLevel = LogLevelRank(argv[++i]);
      if (options->minLevel < 0) return false;
    } else if (arg == "--component" && hasValue) {
      options->component = argv[++i];
    } else if (arg.rfind("-", 0) == 0) {
      return false;
    } else {
      options->paths.push_back(arg);
    }
  }
  if (options->paths.empty()) options->paths.push_back("/var/log/quillmor");
  return true;
}

bool Selected(const LogRecord& record, const Options& options) {
  if (record.kind != LogLineKind::ENTRY) return true;
  if (LogLevelRank(record.level) < options.minLevel) return false;
  return options.component.empty() || record.file.find(options.component) != std::string::npos ||
         record.function.find(options.component) != std::string::npos;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    std::fputs(kUsage, stderr);
    return 2;
  }
  const bool colour = !options.json && isatty(STDOUT_FILENO) && std::getenv("NO_COLOR") == nullptr;
  LogPrinter printer(stdout, options.json, colour);
  const LogTail::LineFn print = [&](std::string_view line, const std::string& path) {
    const LogRecord record = ParseLogLine(line);
    if (Selected(record, options)) printer.Print(record, path);
  };
  LogTail tail;
  if (!options.follow) {
    const std::vector<std::string> files = ListLogFiles(options.paths);
    if (files.empty()) {
      std::fprintf(stderr, "qwd-log: no log files in %s\n", options.paths[0].c_str());
      return 1;
    }
    tail.Read(files, true, print);
    return 0;
  }
  for (;;) {
    tail.Read(ListLogFiles(options.paths), false, print);
    std::fflush(stdout);
    usleep(kFollowPollUsec);
  }
}
