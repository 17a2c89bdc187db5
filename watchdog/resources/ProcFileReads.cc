// The readers of single /proc files that SysResourcesMonitoring.h declares:
// the system's memory totals and a process's status, each read line by line
// into fixed buffers.

#include <fcntl.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "common/Log.h"
#include "common/ProcRoot.h"
#include "common/StringUtils.h"
#include "watchdog/resources/ProcDir.h"
#include "watchdog/resources/SysResourcesMonitoring.h"

namespace SysResMon {

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_INFRA_UTILS;
constexpr int32_t kLineSize = 512;
constexpr size_t kPathSize = 512;
constexpr size_t kWordSize = 100;  // the parse formats below read at most 99 characters

struct MeminfoField {
  const char* name;
  uint32_t MemoryInfo::*field;
};
constexpr MeminfoField kMeminfoFields[] = {
    {"MemTotal", &MemoryInfo::totalKb},         {"MemFree", &MemoryInfo::freeKb},
    {"MemAvailable", &MemoryInfo::availableKb}, {"Buffers", &MemoryInfo::buffersKb},
    {"Cached", &MemoryInfo::cachedKb},
};

// A key of the status file and the field it fills: text (first word) or number.
struct StatusKey {
  const char* key;
  std::array<char, kProcNameSize> ProcessStatus::*text;
  int32_t ProcessStatus::*number;
};
constexpr StatusKey kStatusKeys[] = {
    {"Name:", &ProcessStatus::name, nullptr},     {"State:", &ProcessStatus::state, nullptr},
    {"VmRSS:", nullptr, &ProcessStatus::vmRssKb}, {"VmHWM:", nullptr, &ProcessStatus::vmHwmKb},
    {"PPid:", nullptr, &ProcessStatus::ppid},     {"Threads:", nullptr, &ProcessStatus::threads},
    {"FDSize:", nullptr, &ProcessStatus::fdSize},
};
constexpr uint32_t kAllStatusKeys = (1u << std::size(kStatusKeys)) - 1;
constexpr char kBlanks[] = " \t\n\v\f\r";  // what "%s" stops at

// Opening tells a process that has gone (an expected race with /proc, logged
// at DEBUG when mayVanish) from a file that really fails.
bool Opened(const ProcFile& file, const char* path, bool mayVanish) {
  if (file.IsOpen()) return true;
  const bool gone = mayVanish && (errno == ENOENT || errno == ESRCH);
  QWD_LOG(kComponent, gone ? LoggerLevel::DEBUG : LoggerLevel::ERROR,
          "Failed creating '%s' file reader object\n", path);
  return false;
}

// Keys are whole first words of the line, values the next word, both cut at
// 99 characters. Most lines hold keys that are not wanted: the key is matched
// before the value is scanned, which keeps the watch-cycle check cheap.
// Returns the bit of the key that the line filled, 0 for any other line.
uint32_t ParseStatusLine(const char* line, ProcessStatus& status) {
  const char* word = line + std::strspn(line, kBlanks);
  const size_t length = std::strcspn(word, kBlanks);
  for (size_t i = 0; i < std::size(kStatusKeys); ++i) {
    const StatusKey& key = kStatusKeys[i];
    if (std::strlen(key.key) != length || std::memcmp(word, key.key, length) != 0) continue;
    char value[kWordSize] = "";
    std::sscanf(word + length, "%99s", value);
    if (key.text != nullptr) {
      SafeStrCopy(status.*key.text, value);
    } else {
      status.*key.number = std::atoi(value);
    }
    return 1u << i;
  }
  return 0;
}

bool IsNameCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '(' ||
         c == ')' || c == '_' || c == ' ';
}

// sscanf(line, " %99[a-zA-Z0-9()_ ]:%d", name, value) == 2, without sscanf:
// for every line of meminfo at every watch cycle it costs more than the
// kernel's making of the file. Fills what sscanf would fill.
bool ParseMeminfoLine(const char* line, char (&name)[kWordSize], int* value) {
  const char* text = line + std::strspn(line, kBlanks);
  size_t length = 0;
  while (length < kWordSize - 1 && IsNameCharacter(text[length])) ++length;
  if (length == 0) return false;
  std::memcpy(name, text, length);
  name[length] = '\0';
  if (text[length] != ':') return false;
  const char* number = text + length + 1;
  char* end = nullptr;
  const long parsed = std::strtol(number, &end, 10);
  if (end == number) return false;
  *value = static_cast<int>(parsed);
  return true;
}

}  // namespace

StatusCode ReadMeminfo(MemoryInfo& memoryInfo, HeldProcFile* held) {
  char path[kPathSize];
  std::snprintf(path, sizeof(path), "%s/meminfo", GetProcRoot());
  if (held != nullptr && !held->IsOpen()) held->Open(path, O_RDONLY);
  ProcFile reader(path, held != nullptr ? held->Descriptor() : -1);
  if (!Opened(reader, path, false)) return StatusCode::FAILURE;

  memoryInfo = MemoryInfo{};
  char line[kLineSize];
  while (reader.ReadLine(line, kLineSize)) {
    char name[kWordSize] = "";
    int value = 0;
    if (!ParseMeminfoLine(line, name, &value)) {
      QWD_LOG_ERROR(kComponent, "There's an issue with parsing %s\n", path);
      QWD_LOG_ERROR(kComponent, "Failed line: %s, results in param=%s, value=%d\n", line, name,
                    value);
      return StatusCode::FAILURE;
    }
    for (const MeminfoField& field : kMeminfoFields) {
      if (std::strcmp(name, field.name) == 0) {
        memoryInfo.*field.field = static_cast<uint32_t>(value);
        break;
      }
    }
  }
  // Older kernels have no MemAvailable; buffers are deliberately left out.
  if (memoryInfo.availableKb == 0) {
    memoryInfo.availableKb = memoryInfo.freeKb + memoryInfo.cachedKb;
  }
  return StatusCode::SUCCESS;
}

StatusCode ReadProcessStatus(ProcessStatus& status, int32_t pid) {
  if (pid < 1) {
    QWD_LOG_ERROR(kComponent, "PID can't be less than 1\n");
    return StatusCode::INVALID_PARAM;
  }
  char path[kPathSize];
  std::snprintf(path, sizeof(path), "%s/%d/status", GetProcRoot(), pid);
  ProcFile reader(path);
  if (!Opened(reader, path, true)) return StatusCode::FAILURE;

  status = ProcessStatus{};
  status.pid = pid;
  // The kernel writes each key once, so the read ends with the last wanted
  // one: the rest of the file (signal masks, CPU lists) costs further reads.
  uint32_t found = 0;
  char line[kLineSize];
  while (found != kAllStatusKeys && reader.ReadLine(line, kLineSize)) {
    found |= ParseStatusLine(line, status);
  }
  return StatusCode::SUCCESS;
}

}  // namespace SysResMon
