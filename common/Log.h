#pragma once

// The logging front end that every module calls. Lines go to the installed
// LogSink: the logger once it is initialised, a capture in tests, nothing
// before that (lines logged before the logger exists are dropped).

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "common/LogComponent.h"
#include "common/Seam.h"

enum class LoggerLevel : uint32_t {
  DEBUG = 0,
  VERBOSE = 1,
  INFO = 2,
  WARN = 3,
  ERROR = 4,
  FATAL = 5,
  INVALID = 6,
};

// Longest message a signal handler can log, terminator included.
constexpr size_t kSignalLogMessageSize = 256;

// Receiver of every log line. Implementations must be thread-safe.
class LogSink {
 public:
  // True when a line of this level would be written for the component.
  virtual bool ShouldLog(uint32_t component, LoggerLevel level) = 0;
  // Writes one line; with checkLevel the sink applies its level filter first.
  virtual void Print(uint32_t component, const char* function, LoggerLevel level,
                     const char* sourceFile, int line, bool checkLevel, const char* format,
                     va_list args) __attribute__((format(printf, 8, 0))) = 0;
  // A line from a signal handler, its message already formatted (at most
  // kSignalLogMessageSize bytes with the terminator). Must neither wait for
  // a lock nor allocate when the handler interrupted this very sink. The
  // default, for sinks that never hold anything a signal could interrupt,
  // is Print.
  virtual void PrintFromSignal(uint32_t component, const char* function, LoggerLevel level,
                               const char* sourceFile, int line, const char* message) {
    PrintFormatted(component, function, level, sourceFile, line, "%s", message);
  }

 protected:
  ~LogSink() = default;

 private:
  void PrintFormatted(uint32_t component, const char* function, LoggerLevel level,
                      const char* sourceFile, int line, const char* format, ...)
      __attribute__((format(printf, 7, 8))) {
    va_list args;
    va_start(args, format);
    Print(component, function, level, sourceFile, line, true, format, args);
    va_end(args);
  }
};

// The sink's seam; its real implementation drops every line.
template <>
Seam<LogSink>& SeamOf<LogSink>();

// Installs the process-wide sink and returns the previous one (nullptr for
// none); nullptr drops every line from then on.
LogSink* InstallLogSink(LogSink* sink);

void PrintLogLine(uint32_t component, const char* function, LoggerLevel level,
                  const char* sourceFile, int line, const char* format, ...)
    __attribute__((format(printf, 6, 7)));

// As PrintLogLine without the level test; pair it with ShouldLogComponent when
// the arguments are costly to prepare.
void PrintLogLineWOLevelCheck(uint32_t component, const char* function, LoggerLevel level,
                              const char* sourceFile, int line, const char* format, ...)
    __attribute__((format(printf, 6, 7)));

bool ShouldLogComponent(uint32_t component, LoggerLevel level);

// For signal handlers: formats the message (cut at kSignalLogMessageSize) on
// the stack and hands it to the sink's PrintFromSignal; errno is kept. Only
// conversions that need no allocation (%d, %s ...) belong in the format.
void PrintLogLineFromSignal(uint32_t component, const char* function, LoggerLevel level,
                            const char* sourceFile, int line, const char* format, ...)
    __attribute__((format(printf, 6, 7)));

#define QWD_LOG(component, level, ...) \
  PrintLogLine((component), __func__, (level), __FILE__, __LINE__, __VA_ARGS__)
#define QWD_LOG_DEBUG(component, ...) QWD_LOG(component, LoggerLevel::DEBUG, __VA_ARGS__)
#define QWD_LOG_VERBOSE(component, ...) QWD_LOG(component, LoggerLevel::VERBOSE, __VA_ARGS__)
#define QWD_LOG_INFO(component, ...) QWD_LOG(component, LoggerLevel::INFO, __VA_ARGS__)
#define QWD_LOG_WARN(component, ...) QWD_LOG(component, LoggerLevel::WARN, __VA_ARGS__)
#define QWD_LOG_ERROR(component, ...) QWD_LOG(component, LoggerLevel::ERROR, __VA_ARGS__)
#define QWD_LOG_FATAL(component, ...) QWD_LOG(component, LoggerLevel::FATAL, __VA_ARGS__)
#define QWD_LOG_FROM_SIGNAL(component, level, ...) \
  PrintLogLineFromSignal((component), __func__, (level), __FILE__, __LINE__, __VA_ARGS__)

// Argument checks only log and carry on; `text` is the condition as the log
// shows it. Evaluates to the condition so callers can still branch on it.
#define QWD_ASSERT(component, condition, text)                                                \
  ((condition) ? true                                                                         \
               : (PrintLogLine((component), __func__, LoggerLevel::ERROR, __FILE__, __LINE__, \
                               "ASSERT FAILED: %s \n", text),                                 \
                  false))
