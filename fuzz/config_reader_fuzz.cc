// Feeds arbitrary bytes as watchdog.cfg through Config::Init, every log line
// formatted, for the sanitizers to watch, and checks that every text value
// stays terminated within its field. What each line means is
// ConfigFileReaderTest's and ConfigTest's.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  static FormattingSink sink;
  InstallLogSink(&sink);
  g_fd = memfd_create("watchdog.cfg", MFD_CLOEXEC);
  if (g_fd < 0) std::abort();
  std::snprintf(g_path, sizeof(g_path), "/proc/self/fd/%d", g_fd);
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
  for (uint32_t key = 0; key < CFG_NUM_OF_KEYS; ++key) {
    if (Config::GetType(key) == CFG_TYPE_STRING &&
        std::memchr(Config::GetStrValue(key), '\0', kValueSize) == nullptr) {
      std::fprintf(stderr, "key %s: value not terminated within 129 bytes\n", Config::GetName(key));
      std::abort();
    }
  }
  Config::ResetToDefaults();
  return 0;
}
