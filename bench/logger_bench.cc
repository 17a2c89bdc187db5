// The cost of one log line: through the logger into its rotating file, against
// the floor of one snprintf and one write of the same text, and the cost of a
// line that its component's level suppresses.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "logger/Logger.h"

namespace {

constexpr uint32_t kFileLimit = 25000;
constexpr uint32_t kNumFiles = 2;

// A fresh directory under $TMPDIR (or /tmp), removed afterwards.
class BenchDir {
 public:
  BenchDir() {
    const char* base = std::getenv("TMPDIR");
    path_ = std::string(base != nullptr ? base : "/tmp") + "/qwd-logger-bench-XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) path_.clear();
  }
  ~BenchDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// The logger with an enabled file target in dir, as the watchdog runs it.
bool StartFileLogger(const BenchDir& dir) {
  auto file = LoggerConfig::CreateFileLoggerConfig(dir.path().c_str(), "bench", kFileLimit,
                                                   kNumFiles, static_cast<int32_t>(getpid()));
  return file && Logger::InitLogger(nullptr, file.get(), nullptr) &&
         Logger::SetLoggerTargetEnableState(Logger::kFileTarget, 1);
}

// One line of the watchdog's usual shape at `level`, for a component at INFO.
void PrintThroughFileLogger(benchmark::State& state, LoggerLevel level) {
  BenchDir dir;
  if (!StartFileLogger(dir)) {
    state.SkipWithError("logger initialisation failed");
    return;
  }
  for (auto _ : state) {
    PrintLogLine(LOGGER_COMPONENT_WATCHDOG, __func__, level, "watchdog.c", 486,
                 "Entity '%s' status is %d\n", "UserAgent", 1);
  }
  Logger::DestroyLogger();
}

void BM_PrintLogLineToFile(benchmark::State& state) {
  PrintThroughFileLogger(state, LoggerLevel::INFO);
}
BENCHMARK(BM_PrintLogLineToFile);

void BM_RawFormatAndWrite(benchmark::State& state) {
  BenchDir dir;
  const std::string path = dir.path() + "/raw";
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    state.SkipWithError("cannot open the file");
    return;
  }
  char line[4096];
  size_t size = 0;
  for (auto _ : state) {
    const int length = std::snprintf(
        line, sizeof(line),
        "{\"level\": \"%s\", \"timestamp\": %ld, \"metadata\" : {\"router_timestamp\" : \"%s\", "
        "\"c_file\": \"%s\", \"line\": %d }, \"message\": \"Entity '%s' status is %d \"},\n",
        "INFO", 1234L, "2026-11-21 23:50:00", "watchdog.c", 486, "UserAgent", 1);
    if (write(fd, line, static_cast<size_t>(length)) != length) state.SkipWithError("write");
    size += static_cast<size_t>(length);
    if (size >= kFileLimit) {  // keep the file as small as the logger's
      state.PauseTiming();
      if (ftruncate(fd, 0) != 0 || lseek(fd, 0, SEEK_SET) != 0) state.SkipWithError("truncate");
      size = 0;
      state.ResumeTiming();
    }
  }
  close(fd);
}
BENCHMARK(BM_RawFormatAndWrite);

// Must cost no formatting at all: one lock, one lookup, one unlock.
void BM_PrintLogLineSuppressed(benchmark::State& state) {
  PrintThroughFileLogger(state, LoggerLevel::DEBUG);
}
BENCHMARK(BM_PrintLogLineSuppressed);

}  // namespace

BENCHMARK_MAIN();
