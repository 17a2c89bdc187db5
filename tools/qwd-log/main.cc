// qwd-log: reads the watchdog's (and the agent's) log files in the order they
// were written, across rotation, and prints them for people or as JSON Lines,
// or sums them up.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tools/qwd-log/CrashSymbolizer.h"
#include "tools/qwd-log/LogFiles.h"
#include "tools/qwd-log/LogPrinter.h"
#include "tools/qwd-log/LogRecord.h"
#include "tools/qwd-log/Options.h"
#include "tools/qwd-log/RecordMerge.h"
#include "tools/qwd-log/Summary.h"

namespace {

constexpr useconds_t kFollowPollUsec = 250 * 1000;

bool Selected(const LogRecord& record, const Options& options) {
  if (record.kind != LogLineKind::ENTRY) return true;
  if (LogLevelRank(record.level) < options.minLevel) return false;
  if (!WithinTimes(record.time, options)) return false;
  return options.component.empty() || record.file.find(options.component) != std::string::npos ||
         record.function.find(options.component) != std::string::npos;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::string error;
  if (!ParseOptions(argc, argv, &options, &error)) {
    std::fprintf(stderr, "qwd-log: %s\n%s", error.c_str(), kUsage);
    return 2;
  }
  if (options.help) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  const bool colour = !options.json && isatty(STDOUT_FILENO) && std::getenv("NO_COLOR") == nullptr;
  LogPrinter printer(stdout, options.json, colour);
  LogTail tail;
  if (options.follow) {
    for (;;) {
      tail.Read(ListLogFiles(options.paths), false,
                [&](std::string_view line, const std::string& path) {
                  const LogRecord record = ParseLogLine(line);
                  if (Selected(record, options)) printer.Print(record, path);
                });
      std::fflush(stdout);
      usleep(kFollowPollUsec);
    }
  }
  const std::vector<std::string> files = ListLogFiles(options.paths);
  if (files.empty()) {
    std::fprintf(stderr, "qwd-log: no log files in %s\n", options.paths[0].c_str());
    return 1;
  }
  RecordMerge merge;
  tail.Read(files, true, [&](std::string_view line, const std::string& path) {
    merge.Add(path, ParseLogLine(line));
  });
  std::unique_ptr<CrashSymbolizer> symbolizer;
  if (!options.symbolize.empty()) {
    symbolizer = CrashSymbolizer::Open(options.symbolize, &error);
    if (symbolizer) {
      merge.ForEach(
          [&](const LogRecord& record, const std::string&) { symbolizer->Collect(record); });
    }
    if (!symbolizer || !symbolizer->Resolve(&error)) {
      std::fprintf(stderr, "qwd-log: --symbolize: %s\n", error.c_str());
      return 1;
    }
  }
  Summary summary;
  merge.ForEach([&](const LogRecord& record, const std::string& path) {
    if (!Selected(record, options)) return;
    if (options.summary) {
      summary.Add(record);
    } else if (symbolizer && record.level == "CRASH") {
      LogRecord named = record;
      named.message = symbolizer->Annotate(record);
      printer.Print(named, path);
    } else {
      printer.Print(record, path);
    }
  });
  if (options.summary) summary.Print(stdout);
  return 0;
}
