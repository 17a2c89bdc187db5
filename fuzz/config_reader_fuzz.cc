// Feeds arbitrary bytes as watchdog.cfg through Config::Init and checks that
// every key ends either at its default or set by the file: some line must
// name it before a '=' (blanks between), and a text value must appear in the
// file as it is. What each line means is ConfigFileReaderTest's and
// ConfigTest's.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "common/Log.h"
#include "watchdog/Config.h"

namespace {

constexpr size_t kValueSize = 129;

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
std::string g_default[CFG_NUM_OF_KEYS];

// A key's value of any type as text.
std::string Value(uint32_t key) {
  switch (Config::GetType(key)) {
    case CFG_TYPE_STRING:
      return Config::GetStrValue(key);
    case CFG_TYPE_INT:
      return std::to_string(Config::GetIntValue(key));
    default:
      return std::to_string(Config::GetBoolValue(key));
  }
}

// Whether some line of the text names the key before a '='.
bool Named(const std::string& text, const char* name) {
  for (size_t at = text.find(name); at != std::string::npos; at = text.find(name, at + 1)) {
    const size_t pos = text.find_first_not_of(" \t", at + std::strlen(name));
    if (pos != std::string::npos && text[pos] == '=') return true;
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
  for (uint32_t key = 0; key < CFG_NUM_OF_KEYS; ++key) g_default[key] = Value(key);
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

  const std::string text(reinterpret_cast<const char*>(data), size);
  for (uint32_t key = 0; key < CFG_NUM_OF_KEYS; ++key) {
    const bool isText = Config::GetType(key) == CFG_TYPE_STRING;
    if (isText) {
      Check(std::memchr(Config::GetStrValue(key), '\0', kValueSize) != nullptr, key,
            "value not terminated within 129 bytes");
    }
    Check(Value(key) == g_default[key] || (Named(text, Config::GetName(key)) &&
                                           (!isText || text.find(Value(key)) != std::string::npos)),
          key, "value neither the default nor given by the file");
  }
  Config::ResetToDefaults();
  return 0;
}
