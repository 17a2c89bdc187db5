#include "common/Log.h"

#include <cerrno>
#include <cstdio>

namespace {

// Where lines go while no sink is installed.
class DroppingSink final : public LogSink {
 public:
  bool ShouldLog(uint32_t, LoggerLevel) override { return false; }
  void Print(uint32_t, const char*, LoggerLevel, const char*, int, bool, const char*,
             va_list) override {}
  void PrintFromSignal(uint32_t, const char*, LoggerLevel, const char*, int, const char*) override {
  }
};

DroppingSink g_droppingSink;
Seam<LogSink> g_logSink(&g_droppingSink);

}  // namespace

template <>
Seam<LogSink>& SeamOf<LogSink>() {
  return g_logSink;
}

LogSink* InstallLogSink(LogSink* sink) {
  LogSink* previous = g_logSink.Install(sink);
  return g_logSink.IsReal(previous) ? nullptr : previous;
}

void PrintLogLine(uint32_t component, const char* function, LoggerLevel level,
                  const char* sourceFile, int line, const char* format, ...) {
  va_list args;
  va_start(args, format);
  g_logSink.Get().Print(component, function, level, sourceFile, line, true, format, args);
  va_end(args);
}

void PrintLogLineWOLevelCheck(uint32_t component, const char* function, LoggerLevel level,
                              const char* sourceFile, int line, const char* format, ...) {
  va_list args;
  va_start(args, format);
  g_logSink.Get().Print(component, function, level, sourceFile, line, false, format, args);
  va_end(args);
}

bool ShouldLogComponent(uint32_t component, LoggerLevel level) {
  return g_logSink.Get().ShouldLog(component, level);
}

void PrintLogLineFromSignal(uint32_t component, const char* function, LoggerLevel level,
                            const char* sourceFile, int line, const char* format, ...) {
  const int savedErrno = errno;
  char message[kSignalLogMessageSize];
  va_list args;
  va_start(args, format);
  std::vsnprintf(message, sizeof(message), format, args);
  va_end(args);
  g_logSink.Get().PrintFromSignal(component, function, level, sourceFile, line, message);
  errno = savedErrno;
}
