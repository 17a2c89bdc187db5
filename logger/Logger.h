#pragma once

// The process-wide logger behind PrintLogLine: per-component levels, up to
// three targets (console, file, UDP), the log generation and the account id
// that heads every log file. One lock covers the level test, the formatting
// into the one shared 4096-byte line buffer and the writes to every target, so
// lines from different threads never interleave.
//
// Until InitLogger succeeds (and after DestroyLogger) no logger is installed
// and every line is dropped. A line logged while the lock is already held by
// the same thread (the file writer reporting a failure from under a target) is
// dropped rather than waited for; the logger and its targets report their own
// trouble on standard output.
//
// A signal handler's line (PrintFromSignal) never waits for the lock, which
// the interrupted thread may hold: it is written at once when the lock is
// free, otherwise it waits in a single slot and whoever holds the lock writes
// it on releasing it. A second such line while the slot is taken is lost.

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <memory>

#include "common/Log.h"
#include "logger/ComponentsLogLevelManager.h"
#include "logger/LogLineFormatter.h"
#include "logger/LoggerBaseTarget.h"
#include "logger/LoggerConfig.h"

class Logger final : public LogSink {
 public:
  enum TargetIndex : uint32_t { kConsoleTarget = 0, kFileTarget = 1, kUdpTarget = 2 };
  static constexpr uint32_t kNumTargets = 3;
  static constexpr size_t kLineBufferSize = 4096;
  // At most 127 characters; the header line can show at most 81 of them.
  static constexpr size_t kAccountIdSize = 128;
  static constexpr char kDefaultAccountId[] = "DefaultAccountID";

  // Each configuration may be null, leaving its target absent. In order: the
  // component levels, the console target, the file target, the UDP target
  // (through ConfigureUdpTarget, so a UDP configuration fails), the account id
  // "DefaultAccountID" and its header, then every target disabled; the caller
  // enables what it wants. On failure every slot is cleared. The
  // configurations stay the caller's. An installed logger is destroyed first.
  static bool InitLogger(const LoggerConfig* consoleConfig, const LoggerConfig* fileConfig,
                         const LoggerConfig* udpConfig);
  // Kept as it has always been: a non-null configuration is refused at once,
  // an occupied slot too, and the null one cannot make a target, so every
  // slot is cleared and the result is false. No UDP target is ever configured.
  static bool ConfigureUdpTarget(const LoggerConfig* udpConfig);
  // Uninstalls the logger and destroys every target (files get no end marker).
  static void DestroyLogger();

  // State 1 enables the target and rewrites the header to all targets (that
  // write's result); any other state disables it (true). False for an index of
  // 3 or more and for an absent target.
  static bool SetLoggerTargetEnableState(uint32_t targetIndex, uint32_t state);
  // A refused request (unknown component, bad level) changes nothing, silently.
  static void UpdateSingleCompLogLevel(uint32_t component, uint32_t level);
  // Hands the text unchanged to the console target, if there is one.
  static void PrintCleanConsoleLog(const char* text, size_t length);
  // Moves to the next generation (0, 1, 2, 0, ...) in every present target,
  // rewriting the header to all targets after each one; returns the previous.
  static uint32_t LoggerGenerationInc();
  // Refuses (false, id kept) an id of 128 characters or more. Otherwise stores
  // it and returns whether the header reached every target: an id over 81
  // characters is stored but fits no header, so the files keep the previous
  // header and the result is false.
  static bool SetAccountId(const char* accountId);
  // The id buffer itself, read without the lock.
  static const char* GetAccountIdString();
  static bool IsHumanReadableFormatSet();
  // Non-zero switches the lines from JSON to the human-readable form.
  static void SetHumanReadableFormat(uint8_t enabled);

  bool ShouldLog(uint32_t component, LoggerLevel level) override;
  void Print(uint32_t component, const char* function, LoggerLevel level, const char* sourceFile,
             int line, bool checkLevel, const char* format, va_list args) override
      __attribute__((format(printf, 8, 0)));
  void PrintFromSignal(uint32_t component, const char* function, LoggerLevel level,
                       const char* sourceFile, int line, const char* message) override;

 private:
  class LockedSection;
  // A line recorded by a signal handler, waiting for the lock.
  struct SignalLine {
    uint32_t component;
    const char* function;
    LoggerLevel level;
    const char* sourceFile;
    int line;
    std::array<char, kSignalLogMessageSize> message;
  };
  enum SignalLineState : uint32_t { kSlotFree, kSlotFilling, kSlotReady };

  Logger() = default;
  // At exit: no line may reach a logger whose targets are gone.
  ~Logger();
  void Uninstall();
  bool LevelPasses(uint32_t component, LoggerLevel level) const;
  void WriteLine(const char* function, LoggerLevel level, const char* sourceFile, int line,
                 const char* format, va_list args) __attribute__((format(printf, 6, 0)));
  void WriteFormattedLine(const char* function, LoggerLevel level, const char* sourceFile, int line,
                          const char* format, ...) __attribute__((format(printf, 6, 7)));
  // Under the lock: writes the recorded signal line, if there is one.
  void WriteSignalLine();
  bool WriteHeaderToAllTargets();
  bool ConfigureUdpTargetLocked(const LoggerConfig* udpConfig);
  void ClearTargets();

  static Logger instance_;

  // Lives for the whole process, so a thread that picked up the logger just
  // before DestroyLogger never meets a destroyed mutex.
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  ComponentsLogLevelManager levels_;                                    // minimum levels
  std::array<std::unique_ptr<LoggerBaseTarget>, kNumTargets> targets_;  // by TargetIndex
  uint32_t generation_ = 0;                                             // 0, 1 or 2
  std::array<char, kAccountIdSize> accountId_{};                        // heads every file
  std::atomic<uint8_t> humanReadable_{0};                               // 0: JSON lines
  LogLineFormatter::DateTimeCache dateCache_;         // date text of the last second logged
  std::atomic<uint32_t> signalLineState_{kSlotFree};  // SignalLineState of the slot
  // Last, the buffers of which a line touches only the start: the pages past
  // it are never written and cost no memory.
  std::array<char, kLineBufferSize> lineBuffer_{};  // the line being written
  SignalLine signalLine_{};                         // a signal handler's line, in the slot
};
