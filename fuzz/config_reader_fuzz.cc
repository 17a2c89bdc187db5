// Feeds arbitrary bytes as watchdog.cfg through Config::Init and checks that
// every key ends either at its default or at a value the file really gave:
// some line of the file must read "<name> = <value>" (blanks optional, the
// value a word or quoted) with exactly that value.

#include <sys/mman.h>
#include <unistd.h>

#include <strings.h>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/Log.h"
#include "common/StringUtils.h"
#include "watchdog/Config.h"

namespace {

constexpr size_t kValueSize = 129;
constexpr size_t kPieceLength = 1023;  // the reader's line buffer, less the terminator

// Formats every line, so that the messages' arguments are exercised too.
class FormattingSink final : public LogSink {
 public:
  bool ShouldLog(uint32_t, LoggerLevel) override { return true; }
  void Print(uint32_t, const char*, LoggerLevel, const char*, int, bool, const char* format,
             va_list args) override __attribute__((format(printf, 8, 0))) {
    char line[4096];
    std::vsnprintf(line, sizeof(line), format, args);
  }
};

// The input file lives in memory (a memfd) so that the disk does not set the pace.
int g_fd = -1;
char g_path[64];
std::string g_defaultStr[CFG_NUM_OF_KEYS];
int32_t g_defaultNum[CFG_NUM_OF_KEYS];

bool IsWordChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         (c != '\0' && std::strchr("_-.:,/*", c) != nullptr);
}

// The texts the reader sees: lines cut after each newline and every 1023
// bytes, each ending at its first NUL.
std::vector<std::string> Pieces(const uint8_t* data, size_t size) {
  std::vector<std::string> pieces;
  size_t start = 0;
  while (start < size) {
    size_t end = start;
    while (end < size && end - start < kPieceLength && data[end++] != '\n') {
    }
    const char* text = reinterpret_cast<const char*>(data + start);
    pieces.emplace_back(text, strnlen(text, end - start));
    start = end;
  }
  return pieces;
}

// Every value that some piece assigns to name.
std::vector<std::string> ValuesGiven(const std::vector<std::string>& pieces, const char* name) {
  std::vector<std::string> values;
  const size_t nameLen = std::strlen(name);
  for (const std::string& piece : pieces) {
    for (size_t at = piece.find(name); at != std::string::npos; at = piece.find(name, at + 1)) {
      size_t pos = piece.find_first_not_of(" \t", at + nameLen);
      if (pos == std::string::npos || piece[pos] != '=') continue;
      pos = piece.find_first_not_of(" \t", pos + 1);
      if (pos == std::string::npos) continue;
      size_t end = pos;
      if (piece[pos] == '"') {
        end = piece.find('"', ++pos);
        if (end == std::string::npos) continue;
      } else {
        while (end < piece.size() && IsWordChar(piece[end])) ++end;
      }
      values.push_back(piece.substr(pos, end - pos));
    }
  }
  return values;
}

bool Given(const std::vector<std::string>& values, uint32_t key) {
  for (const std::string& text : values) {
    switch (Config::GetType(key)) {
      case CFG_TYPE_STRING:
        if (text == Config::GetStrValue(key)) return true;
        break;
      case CFG_TYPE_INT: {
        int32_t parsed = 0;
        if (ParseIntStr(&parsed, text.c_str()) && parsed == Config::GetIntValue(key)) return true;
        break;
      }
      case CFG_TYPE_BOOL:
        if (strcasecmp(text.c_str(), "true") == 0) return true;
        break;
    }
  }
  return false;
}

bool AtDefault(uint32_t key) {
  switch (Config::GetType(key)) {
    case CFG_TYPE_STRING:
      return g_defaultStr[key] == Config::GetStrValue(key);
    case CFG_TYPE_INT:
      return g_defaultNum[key] == Config::GetIntValue(key);
    case CFG_TYPE_BOOL:
      return g_defaultNum[key] == Config::GetBoolValue(key);
  }
  return false;
}

void Check(bool condition, uint32_t key, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "key %u (%s): %s\n", key, Config::GetName(key), what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  static FormattingSink sink;
  InstallLogSink(&sink);
  g_fd = memfd_create("watchdog.cfg", MFD_CLOEXEC);
  if (g_fd < 0) std::abort();
  std::snprintf(g_path, sizeof(g_path), "/proc/self/fd/%d", g_fd);
  for (uint32_t key = 0; key < CFG_NUM_OF_KEYS; ++key) {
    if (Config::GetType(key) == CFG_TYPE_STRING) g_defaultStr[key] = Config::GetStrValue(key);
    if (Config::GetType(key) == CFG_TYPE_INT) g_defaultNum[key] = Config::GetIntValue(key);
    if (Config::GetType(key) == CFG_TYPE_BOOL) g_defaultNum[key] = Config::GetBoolValue(key);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (ftruncate(g_fd, 0) != 0) std::abort();
  size_t written = 0;
  while (written < size) {
    const ssize_t n = pwrite(g_fd, data + written, size - written, static_cast<off_t>(written));
    if (n <= 0) std::abort();
    written += static_cast<size_t>(n);
  }
  Config::Init(g_path);

  const std::vector<std::string> pieces = Pieces(data, size);
  for (uint32_t key = 0; key < CFG_NUM_OF_KEYS; ++key) {
    if (Config::GetType(key) == CFG_TYPE_STRING) {
      Check(std::memchr(Config::GetStrValue(key), '\0', kValueSize) != nullptr, key,
            "value not terminated within 129 bytes");
    }
    Check(AtDefault(key) || Given(ValuesGiven(pieces, Config::GetName(key)), key), key,
          "value neither the default nor given by the file");
  }
  Config::ResetToDefaults();
  return 0;
}
