#include "logger/Logger.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "common/LoggerLevelNames.h"
#include "common/StringUtils.h"
#include "common/TimeUtils.h"
#include "logger/ConsoleLoggerTarget.h"
#include "logger/LogLineFormatter.h"
#include "logger/LoggerFileTarget.h"
#include "logger/UdpLoggerTarget.h"

namespace {

// Set while this thread holds the logger lock: a line logged from under it is
// dropped instead of deadlocking on the non-recursive lock.
thread_local bool t_insideLogger = false;

}  // namespace

Logger Logger::instance_;

// The logger lock for one entry point; not held when this thread is already
// inside the logger, nor, without wait, when anyone else holds it. Releasing
// it writes the signal line waiting in the slot.
class Logger::LockedSection {
 public:
  explicit LockedSection(Logger& logger, bool wait = true) : logger_(logger) {
    if (t_insideLogger) return;
    pthread_mutex_t* mutex = &logger_.mutex_;
    if ((wait ? pthread_mutex_lock(mutex) : pthread_mutex_trylock(mutex)) != 0) return;
    t_insideLogger = true;
    held_ = true;
  }
  ~LockedSection() {
    if (!held_) return;
    for (;;) {
      logger_.WriteSignalLine();
      t_insideLogger = false;
      pthread_mutex_unlock(&logger_.mutex_);
      // A signal between the write and the unlock found the lock taken.
      if (logger_.signalLineState_.load() != kSlotReady ||
          pthread_mutex_trylock(&logger_.mutex_) != 0) {
        return;
      }
      t_insideLogger = true;
    }
  }
  LockedSection(const LockedSection&) = delete;
  LockedSection& operator=(const LockedSection&) = delete;

  bool Held() const { return held_; }

 private:
  Logger& logger_;     // whose lock is held
  bool held_ = false;  // whether this section took the lock
};

bool Logger::InitLogger(const LoggerConfig* consoleConfig, const LoggerConfig* fileConfig,
                        const LoggerConfig* udpConfig) {
  Logger& logger = instance_;
  logger.Uninstall();
  LockedSection section(logger);
  if (!section.Held()) return false;
  logger.levels_.Init();
  logger.ClearTargets();
  logger.generation_ = 0;
  logger.dateCache_.Invalidate();
  if (consoleConfig != nullptr) {
    logger.targets_[kConsoleTarget] = ConsoleLoggerTarget::Create();
    if (!logger.targets_[kConsoleTarget]) return false;
  }
  if (fileConfig != nullptr) {
    logger.targets_[kFileTarget] = LoggerFileTarget::Create(fileConfig);
    if (!logger.targets_[kFileTarget]) {
      logger.ClearTargets();
      return false;
    }
  }
  if (udpConfig != nullptr && !logger.ConfigureUdpTargetLocked(udpConfig)) {
    logger.ClearTargets();
    return false;
  }
  SafeStrCopyNoLogs(logger.accountId_.data(), logger.accountId_.size(), kDefaultAccountId);
  logger.WriteHeaderToAllTargets();
  for (auto& target : logger.targets_) {
    if (target) target->Disable();
  }
  InstallLogSink(&logger);
  return true;
}

bool Logger::ConfigureUdpTarget(const LoggerConfig* udpConfig) {
  LockedSection section(instance_);
  return section.Held() && instance_.ConfigureUdpTargetLocked(udpConfig);
}

bool Logger::ConfigureUdpTargetLocked(const LoggerConfig* udpConfig) {
  if (udpConfig != nullptr) return false;
  if (targets_[kUdpTarget]) return false;
  std::unique_ptr<UdpLoggerTarget> target = UdpLoggerTarget::Create(udpConfig);
  if (!target) {
    ClearTargets();
    return false;
  }
  target->Enable();
  targets_[kUdpTarget] = std::move(target);
  return true;
}

void Logger::DestroyLogger() {
  instance_.Uninstall();
  LockedSection section(instance_);
  if (section.Held()) instance_.ClearTargets();
}

Logger::~Logger() { Uninstall(); }

// Leaves alone a sink that was installed after the logger (a test's capture).
void Logger::Uninstall() {
  LogSink* previous = InstallLogSink(nullptr);
  if (previous != this) InstallLogSink(previous);
}

void Logger::ClearTargets() {
  for (auto& target : targets_) target.reset();
}

bool Logger::SetLoggerTargetEnableState(uint32_t targetIndex, uint32_t state) {
  Logger& logger = instance_;
  LockedSection section(logger);
  if (!section.Held() || targetIndex >= kNumTargets || !logger.targets_[targetIndex]) {
    return false;
  }
  if (state != 1) {
    logger.targets_[targetIndex]->Disable();
    return true;
  }
  logger.targets_[targetIndex]->Enable();
  return logger.WriteHeaderToAllTargets();
}

void Logger::UpdateSingleCompLogLevel(uint32_t component, uint32_t level) {
  LockedSection section(instance_);
  if (section.Held()) instance_.levels_.SetComponentLogLevel(component, level);
}

void Logger::PrintCleanConsoleLog(const char* text, size_t length) {
  LockedSection section(instance_);
  LoggerBaseTarget* console = instance_.targets_[kConsoleTarget].get();
  if (section.Held() && text != nullptr && length != 0 && console != nullptr) {
    console->Write(text, length);
  }
}

uint32_t Logger::LoggerGenerationInc() {
  Logger& logger = instance_;
  LockedSection section(logger);
  const uint32_t previous = logger.generation_;
  if (!section.Held()) return previous;
  logger.generation_ = (previous + 1) % 3;
  // The header goes to all targets once per target on purpose: with console
  // and file present the file's header is rewritten twice.
  for (auto& target : logger.targets_) {
    if (!target) continue;
    if (!target->SetGeneration(logger.generation_)) {
      std::puts("Logger.c::Logger_LoggerGenerationInc - Failed to increase logger generation ");
    } else if (!logger.WriteHeaderToAllTargets()) {
      std::puts("Failed printing account ID header");
    }
  }
  return previous;
}

bool Logger::SetAccountId(const char* accountId) {
  if (accountId == nullptr || strnlen(accountId, kAccountIdSize) >= kAccountIdSize) return false;
  Logger& logger = instance_;
  LockedSection section(logger);
  if (!section.Held()) return false;
  SafeStrCopyNoLogs(logger.accountId_.data(), logger.accountId_.size(), accountId);
  return logger.WriteHeaderToAllTargets();
}

const char* Logger::GetAccountIdString() { return instance_.accountId_.data(); }

bool Logger::IsHumanReadableFormatSet() { return instance_.humanReadable_.load() != 0; }

void Logger::SetHumanReadableFormat(uint8_t enabled) { instance_.humanReadable_.store(enabled); }

bool Logger::WriteHeaderToAllTargets() {
  char header[LoggerFileTarget::kHeaderLineSize];
  const int32_t length =
      LogLineFormatter::FormatAccountIDHeaderLine(header, sizeof(header), accountId_.data());
  if (length < 0) return false;
  bool allWritten = true;
  for (auto& target : targets_) {
    if (target && !target->WriteHeader(header, static_cast<size_t>(length))) allWritten = false;
  }
  return allWritten;
}

bool Logger::LevelPasses(uint32_t component, LoggerLevel level) const {
  return static_cast<uint32_t>(level) >=
         static_cast<uint32_t>(levels_.GetComponentLogLevel(component));
}

bool Logger::ShouldLog(uint32_t component, LoggerLevel level) {
  LockedSection section(*this);
  return section.Held() && LevelPasses(component, level);
}

void Logger::Print(uint32_t component, const char* function, LoggerLevel level,
                   const char* sourceFile, int line, bool checkLevel, const char* format,
                   va_list args) {
  LockedSection section(*this);
  if (!section.Held() || (checkLevel && !LevelPasses(component, level))) return;
  WriteLine(function, level, sourceFile, line, format, args);
}

void Logger::PrintFromSignal(uint32_t component, const char* function, LoggerLevel level,
                             const char* sourceFile, int line, const char* message) {
  uint32_t expected = kSlotFree;
  if (signalLineState_.compare_exchange_strong(expected, kSlotFilling)) {
    signalLine_.component = component;
    signalLine_.function = function;
    signalLine_.level = level;
    signalLine_.sourceFile = sourceFile;
    signalLine_.line = line;
    SafeStrCopyNoLogs(signalLine_.message.data(), signalLine_.message.size(), message);
    signalLineState_.store(kSlotReady);
  }
  // Written by this section's release when the lock is free, else by its holder's.
  LockedSection section(*this, false);
}

void Logger::WriteSignalLine() {
  if (signalLineState_.load() != kSlotReady) return;
  if (LevelPasses(signalLine_.component, signalLine_.level)) {
    WriteFormattedLine(signalLine_.function, signalLine_.level, signalLine_.sourceFile,
                       signalLine_.line, "%s", signalLine_.message.data());
  }
  signalLineState_.store(kSlotFree);
}

void Logger::WriteFormattedLine(const char* function, LoggerLevel level, const char* sourceFile,
                                int line, const char* format, ...) {
  va_list args;
  va_start(args, format);
  WriteLine(function, level, sourceFile, line, format, args);
  va_end(args);
}

void Logger::WriteLine(const char* function, LoggerLevel level, const char* sourceFile, int line,
                       const char* format, va_list args) {
  const char* levelName = LoggerLevelToStr(static_cast<uint32_t>(level));
  int32_t length;
  if (humanReadable_.load(std::memory_order_relaxed) == 0) {
    timespec wallClock{};
    timespec monotonic{};
    GetCurrentRealTime(&wallClock);
    GetCurrentMonoTime(&monotonic);
    length = LogLineFormatter::FormatLogLineVaArgsAsJson(
        lineBuffer_.data(), lineBuffer_.size(), levelName, sourceFile, line, wallClock.tv_sec,
        static_cast<long>(monotonic.tv_sec), function, format, args, &dateCache_);
  } else {
    length = LogLineFormatter::FormatLogLineVaArgs(
        lineBuffer_.data(), lineBuffer_.size(), levelName, sourceFile, accountId_.data(), line,
        static_cast<time_t>(GetCurrentRealTimeInSec()), function, format, args);
  }
  if (length < 0) return;
  for (auto& target : targets_) {
    if (target) target->Write(lineBuffer_.data(), static_cast<size_t>(length));
  }
}
