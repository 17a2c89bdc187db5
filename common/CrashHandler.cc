#include "common/CrashHandler.h"

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "common/Clock.h"
#include "common/LogFormat.h"
#include "common/OwnMemoryReader.h"
#include "common/RootFiles.h"
#include "common/SignalSafeFormat.h"
#include "common/StackWalk.h"
#include "common/TimeUtils.h"

namespace {

// The name the crash lines carry as their source file.
constexpr const char* kSourceFile = "../common/CrashHandler.c";
constexpr int kHandledSignals[] = {SIGSEGV, SIGBUS, SIGFPE};
// The handler's own stack: a fault from running out of stack must still
// leave its dump, so the handler never runs on the stack that overflowed.
constexpr size_t kAltStackSize = 64 * 1024;

// Process-wide, static, so that the handler never allocates. All zero at
// start, so that it lies in .bss.
struct CrashState {
  bool hasDump;                      // whether dumpFd is open
  int dumpFd;                        // the open dump file
  long monotonicSec;                 // monotonic seconds of the last recording
  char timeText[32];                 // its UTC wall-clock text, "" if unconvertible
  char accountId[128];               // the account of the crash, for a core dump
  const char* (*accountIdSource)();  // where the account id comes from
};
// What only a crash writes: on the handler's own stack, so that it costs no
// memory until then.
struct CrashBuffers {
  char message[2048];                  // the message of the line being written
  char line[2048 + 256 + 256];         // that line as printed or as a JSON line
  StackFrame frames[kMaxStackFrames];  // the walked frames
};
// The lines written at installation are short, and use a smaller pair.
struct TraceBuffers {
  char* message;
  size_t messageSize;
  char* line;
  size_t lineSize;
};

CrashState g_crash;

void WriteAll(int fd, const char* text, size_t length) {
  while (length > 0) {
    const ssize_t written = write(fd, text, length);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text += written;
    length -= static_cast<size_t>(written);
  }
}

// At installation this also loads the time zone data that gmtime_r sets up
// once, so that the call in the handler finds it ready.
void RecordTime() {
  timespec now{};
  GetCurrentMonoTime(&now);
  g_crash.monotonicSec = static_cast<long>(now.tv_sec);
  GetCurrentRealTime(&now);
  const time_t wallSec = now.tv_sec;
  tm parts{};
  if (gmtime_r(&wallSec, &parts) == nullptr) {
    g_crash.timeText[0] = '\0';
    return;
  }
  SignalSafeFormat(g_crash.timeText, sizeof(g_crash.timeText), "%04d-%02d-%02d %02d:%02d:%02d",
                   parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday, parts.tm_hour,
                   parts.tm_min, parts.tm_sec);
}

// Prints the message and a newline on standard output and, when the dump is
// open, writes it there as a crash JSON line naming sourceLine.
__attribute__((format(printf, 3, 4))) void EmitTraceLine(const TraceBuffers& buffers,
                                                         int sourceLine, const char* format, ...) {
  va_list args;
  va_start(args, format);
  SignalSafeFormatV(buffers.message, buffers.messageSize, format, args);
  va_end(args);
  size_t length = SignalSafeFormat(buffers.line, buffers.lineSize, "%s\n", buffers.message);
  WriteAll(STDOUT_FILENO, buffers.line, length);
  if (!g_crash.hasDump) return;
  length = SignalSafeFormat(buffers.line, buffers.lineSize, QWD_LOG_JSON_LINE_FORMAT, "CRASH",
                            g_crash.monotonicSec, g_crash.timeText, kSourceFile, sourceLine,
                            buffers.message);
  WriteAll(g_crash.dumpFd, buffers.line, length);
}

void CloseDump() {
  if (g_crash.hasDump) close(g_crash.dumpFd);
  g_crash.hasDump = false;
}

void TakeAccountId() {
  const char* id = g_crash.accountIdSource != nullptr ? g_crash.accountIdSource() : nullptr;
  if (id == nullptr || id[0] == '\0') id = "DefaultAccountID";
  SignalSafeFormat(g_crash.accountId, sizeof(g_crash.accountId), "%s", id);
}

void OnFatalSignal(int signal, siginfo_t*, void* context) {
  const int lastErrno = errno;
  TakeAccountId();
  CrashBuffers crash;
  RecordTime();
  const TraceBuffers buffers{crash.message, sizeof(crash.message), crash.line, sizeof(crash.line)};
  EmitTraceLine(buffers, __LINE__, "Crashed at [%p] signal:%d pid:%d last errno:%d",
                reinterpret_cast<void*>(StackWalk::FaultAddress(context)), signal, getpid(),
                lastErrno);
  size_t count = 0;
  {
    OwnMemoryReader memory;
    count = StackWalk::FromSignalContext(context, memory, crash.frames);
  }
  for (size_t i = 0; i < count; ++i) {
    EmitTraceLine(buffers, __LINE__, "Frame %d: %p  sp:%p", static_cast<int>(i + 1),
                  reinterpret_cast<void*>(crash.frames[i].returnAddress),
                  reinterpret_cast<void*>(crash.frames[i].stackPointer));
  }
  EmitTraceLine(buffers, __LINE__, "----- END TRACE -----");
  CloseDump();
  SleepSec(1);
  abort();
}

// Mapped once for the process and never unmapped; the stack is the calling
// thread's, the one thread of the programs that install the handler. A
// mapping of its own stays untouched, and costs no memory, until a crash.
void InstallAltStack() {
  static void* stack =
      mmap(nullptr, kAltStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (stack == MAP_FAILED) return;  // the handler then runs on the faulting stack
  stack_t alternate = {};
  alternate.ss_sp = stack;
  alternate.ss_size = kAltStackSize;
  sigaltstack(&alternate, nullptr);
}

}  // namespace

bool SetCrashHandler(const char* directory, const char* name, int32_t pid) {
  // Earlier printf output stays ahead of these unbuffered lines.
  fflush(stdout);
  RecordTime();
  if (directory != nullptr) {
    char path[512];
    char message[64];
    char line[640];
    SignalSafeFormat(path, sizeof(path), QWD_CRASH_DUMP_NAME_FORMAT, directory, name, pid);
    CloseDump();
    // Written as root in the log directory: a planted link is removed, never followed.
    g_crash.dumpFd = OpenRegularFileForWriting(path);
    g_crash.hasDump = g_crash.dumpFd >= 0;
    if (!g_crash.hasDump) {
      const size_t length =
          SignalSafeFormat(line, sizeof(line), "Failed creating crash dump file %s\n", path);
      WriteAll(STDOUT_FILENO, line, length);
      return false;
    }
    EmitTraceLine({message, sizeof(message), line, sizeof(line)}, __LINE__,
                  "----- START TRACE pid %d -----", pid);
  }
  InstallAltStack();
  struct sigaction action = {};
  action.sa_sigaction = OnFatalSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_SIGINFO | SA_RESETHAND | SA_ONSTACK;
  for (const int signal : kHandledSignals) sigaction(signal, &action, nullptr);
  return true;
}

void CloseCrashDump() { CloseDump(); }

void SetCrashAccountIdSource(const char* (*getAccountId)()) {
  g_crash.accountIdSource = getAccountId;
}
