#include "common/Log.h"

#include <atomic>
#include <cerrno>
#include <cstdio>

namespace {

std::atomic<LogSink*> g_logSink{nullptr};

}  // namespace

LogSink* InstallLogSink(LogSink* sink) { return g_logSink.exchange(sink); }

void PrintLogLine(uint32_t component, const char* function, LoggerLevel level,
                  const char* sourceFile, int line, const char* format, ...) {
  LogSink* sink = g_logSink.load(std::memory_order_acquire);
  if (sink == nullptr) return;
  va_list args;
  va_start(args, format);
  sink->Print(component, function, level, sourceFile, line, true, format, args);
  va_end(args);
}

void PrintLogLineWOLevelCheck(uint32_t component, const char* function, LoggerLevel level,
                              const char* sourceFile, int line, const char* format, ...) {
  LogSink* sink = g_logSink.load(std::memory_order_acquire);
  if (sink == nullptr) return;
  va_list args;
  va_start(args, format);
  sink->Print(component, function, level, sourceFile, line, false, format, args);
  va_end(args);
}

bool ShouldLogComponent(uint32_t component, LoggerLevel level) {
  LogSink* sink = g_logSink.load(std::memory_order_acquire);
  return sink != nullptr && sink->ShouldLog(component, level);
}

void PrintLogLineFromSignal(uint32_t component, const char* function, LoggerLevel level,
                            const char* sourceFile, int line, const char* format, ...) {
  const int savedErrno = errno;
  LogSink* sink = g_logSink.load(std::memory_order_acquire);
  if (sink != nullptr) {
    char message[kSignalLogMessageSize];
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, sizeof(message), format, args);
    va_end(args);
    sink->PrintFromSignal(component, function, level, sourceFile, line, message);
  }
  errno = savedErrno;
}
