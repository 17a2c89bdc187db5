#include "tools/qwd-log/LogRecord.h"

#include <cctype>

#include "common/LogFormat.h"
#include "tools/qwd-log/JsonText.h"

namespace {

constexpr std::string_view kHeaderMark = LogFormat::kHeaderStart;
constexpr std::string_view kEndMarker = LogFormat::kEndObject;
constexpr std::string_view kLevels[] = {"DEBUG", "VERBOSE", "INFO", "WARN",
                                        "ERROR", "FATAL",   "CRASH"};

std::string_view TrimRight(std::string_view text) {
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) {
    text.remove_suffix(1);
  }
  return text;
}

bool ParseJsonEntry(std::string_view line, LogRecord* record) {
  // Every line ends in "},": the comma belongs to the file, not the object.
  std::string_view object = TrimRight(line);
  if (!object.empty() && object.back() == ',') object.remove_suffix(1);
  JsonReader json(object);
  const auto metadata = [&](const std::string& key) {
    if (key == QWD_LOG_FIELD_TIME) return json.String(&record->time);
    if (key == QWD_LOG_FIELD_FILE) return json.String(&record->file);
    if (key == QWD_LOG_FIELD_LINE) return json.Integer(&record->line);
    return false;
  };
  bool hasLevel = false;
  bool hasMessage = false;
  const bool parsed = json.Object([&](const std::string& key) {
    if (key == QWD_LOG_FIELD_LEVEL) return hasLevel = json.String(&record->level);
    if (key == QWD_LOG_FIELD_MESSAGE) return hasMessage = json.String(&record->message);
    if (key == QWD_LOG_FIELD_TIMESTAMP) return json.Integer(&record->timestamp);
    if (key == QWD_LOG_FIELD_METADATA) return json.Object(metadata);
    return false;
  });
  if (!parsed || !json.AtEnd() || !hasLevel || !hasMessage) return false;
  record->message = std::string(TrimRight(record->message));
  return true;
}

// "YYYY-MM-DD HH:MM:SS file(line): LEVEL: account function message"
bool ParseHumanEntry(std::string_view line, LogRecord* record) {
  constexpr std::string_view kShape = "dddd-dd-dd dd:dd:dd ";
  if (line.size() <= kShape.size()) return false;
  for (size_t i = 0; i < kShape.size(); ++i) {
    const bool digit = std::isdigit(static_cast<unsigned char>(line[i])) != 0;
    if (kShape[i] == 'd' ? !digit : line[i] != kShape[i]) return false;
  }
  std::string_view rest = line.substr(kShape.size());
  const size_t open = rest.find('(');
  const size_t close = rest.find("): ");
  const size_t levelEnd = close == std::string_view::npos ? close : rest.find(": ", close + 3);
  if (open == std::string_view::npos || close == std::string_view::npos || close < open ||
      levelEnd == std::string_view::npos) {
    return false;
  }
  int64_t number = 0;
  for (const char c : rest.substr(open + 1, close - open - 1)) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    number = number * 10 + (c - '0');
  }
  record->level = std::string(rest.substr(close + 3, levelEnd - close - 3));
  if (LogLevelRank(record->level) < 0) return false;
  record->time = std::string(line.substr(0, kShape.size() - 1));
  record->file = std::string(rest.substr(0, open));
  record->line = number;
  rest.remove_prefix(levelEnd + 2);
  const size_t accountEnd = rest.find(' ');
  const size_t functionEnd =
      accountEnd == std::string_view::npos ? accountEnd : rest.find(' ', accountEnd + 1);
  if (functionEnd == std::string_view::npos) return false;
  record->function = std::string(rest.substr(accountEnd + 1, functionEnd - accountEnd - 1));
  record->message = std::string(TrimRight(rest.substr(functionEnd + 1)));
  return true;
}

}  // namespace

int LogLevelRank(std::string_view level) {
  for (size_t i = 0; i < std::size(kLevels); ++i) {
    const std::string_view name = kLevels[i];
    if (name.size() != level.size()) continue;
    size_t at = 0;
    while (at < name.size() && std::toupper(static_cast<unsigned char>(level[at])) == name[at]) {
      ++at;
    }
    if (at == name.size()) return static_cast<int>(i);
  }
  return -1;
}

LogRecord ParseLogLine(std::string_view line) {
  LogRecord record;
  record.text = std::string(line);
  const std::string_view trimmed = TrimRight(line);
  const size_t header = trimmed.find(kHeaderMark);
  if (trimmed.empty()) {
    record.kind = LogLineKind::BLANK;
  } else if (trimmed == kEndMarker) {
    record.kind = LogLineKind::END_MARKER;
  } else if (header != std::string_view::npos) {
    const std::string_view id = trimmed.substr(header + kHeaderMark.size());
    record.accountId = std::string(id.substr(0, id.find('"')));
    record.kind = LogLineKind::HEADER;
  } else if (ParseJsonEntry(line, &record) || ParseHumanEntry(trimmed, &record)) {
    record.kind = LogLineKind::ENTRY;
    // The build names sources from its own directory: "../watchdog/X.cc".
    size_t from = 0;
    while (record.file.compare(from, 3, "../") == 0 || record.file.compare(from, 2, "./") == 0) {
      from = record.file.find('/', from) + 1;
    }
    record.file.erase(0, from);
  }
  return record;
}
