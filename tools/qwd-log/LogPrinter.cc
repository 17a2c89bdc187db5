#include "tools/qwd-log/LogPrinter.h"

#include <cinttypes>

#include "tools/qwd-log/JsonText.h"

namespace {

constexpr const char* kReset = "\033[0m";

const char* LevelColour(const std::string& level) {
  const int rank = LogLevelRank(level);
  if (rank >= LogLevelRank("ERROR")) return "\033[1;31m";
  if (rank == LogLevelRank("WARN")) return "\033[33m";
  if (rank >= 0 && rank < LogLevelRank("INFO")) return "\033[2m";
  return "";
}

std::string BaseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

void LogPrinter::Print(const LogRecord& record, const std::string& logPath) {
  if (record.kind != LogLineKind::ENTRY && record.kind != LogLineKind::UNPARSED) return;
  if (json_) {
    PrintJson(record, logPath);
  } else {
    PrintHuman(record);
  }
}

void LogPrinter::PrintHuman(const LogRecord& record) {
  if (record.kind == LogLineKind::UNPARSED) {
    std::fprintf(out_, "%s[unparsed]%s %s\n", colour_ ? "\033[35m" : "", colour_ ? kReset : "",
                 record.text.c_str());
    return;
  }
  std::string source = record.file;
  if (record.line >= 0) source += ':' + std::to_string(record.line);
  const char* colour = colour_ ? LevelColour(record.level) : "";
  std::fprintf(out_, "%-19s %s%-7s%s %-32s %s%s%s\n", record.time.c_str(), colour,
               record.level.c_str(), *colour != '\0' ? kReset : "", source.c_str(),
               record.function.c_str(), record.function.empty() ? "" : ": ",
               record.message.c_str());
}

void LogPrinter::PrintJson(const LogRecord& record, const std::string& logPath) {
  std::string line = "{";
  const auto text = [&](const char* key, const std::string& value) {
    if (line.size() > 1) line += ", ";
    line += std::string("\"") + key + "\": \"" + JsonEscape(value) + "\"";
  };
  const auto number = [&](const char* key, int64_t value) {
    if (value < 0) return;
    line += std::string(", \"") + key + "\": " + std::to_string(value);
  };
  if (record.kind == LogLineKind::UNPARSED) {
    text("unparsed", record.text);
  } else {
    text("time", record.time);
    number("timestamp", record.timestamp);
    text("level", record.level);
    if (!record.file.empty()) text("file", record.file);
    number("line", record.line);
    if (!record.function.empty()) text("function", record.function);
    text("message", record.message);
  }
  text("log", BaseName(logPath));
  std::fprintf(out_, "%s}\n", line.c_str());
}
