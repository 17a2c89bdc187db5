#pragma once

// Turns one logging call into one line of text: a JSON object closed by ",\n"
// (the form the watchdog writes) or a human-readable line, plus the
// fixed-width account id header that opens every log file. Pure: the clock
// comes in as seconds and the output goes into the caller's buffer. Every
// result is the length written (terminator excluded) or -1, and every output
// is zero-terminated.

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <ctime>

namespace LogLineFormatter {

// Appended to a message cut at its buffer's end (11 characters and the zero).
inline constexpr char kTruncMark[] = " (trunc)...";
inline constexpr size_t kTruncMarkSize = sizeof(kTruncMark);
// Local buffers of the line forms: the message and the date text.
inline constexpr size_t kMessageSize = 1024;
inline constexpr size_t kDateTimeSize = 64;
// The header line is always this wide: text, blanks, newline at byte 100.
inline constexpr int32_t kHeaderLineLength = 101;

// vsnprintf with a visible cut: a message that does not fit ends in kTruncMark
// (in the last 12 bytes) and the result is the capacity itself. -1 only for a
// null buffer or zero capacity.
int32_t FormatMessage(char* buffer, size_t capacity, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

// JSON escaping in place: bytes 0x01..0x1F become blanks, '"' becomes '\'' and
// '\\' becomes '/'. Nothing is inserted, so the length never changes.
void EscapeMessage(char* text);

// "%Y-%m-%d %H:%M:%S" of the seconds in local time; its length, 0 on failure.
size_t FormatDateTime(char* buffer, size_t capacity, time_t seconds);

// Remembers the date text of the last second formatted, so that a burst of
// lines within one second pays for localtime_r and strftime once. Not
// thread-safe: the logger keeps one under its lock and clears it when it is
// initialised (the time zone may have changed since).
class DateTimeCache {
 public:
  // As FormatDateTime, from the cache when the second is the last one.
  size_t Format(char* buffer, size_t capacity, time_t seconds);
  void Invalidate() { length_ = 0; }

 private:
  time_t seconds_ = 0;          // second of the cached text
  size_t length_ = 0;           // length of the cached text, 0 when none
  char text_[kDateTimeSize]{};  // the cached text
};

// The JSON line. The message is cut at 1024 bytes with kTruncMark and escaped;
// -1 when the whole line would not fit strictly into the capacity (the line is
// then dropped). The function name is accepted and not printed. The date comes
// from dateCache when one is given.
int32_t FormatLogLineVaArgsAsJson(char* buffer, size_t capacity, const char* levelName,
                                  const char* sourceFile, int line, time_t wallClockSeconds,
                                  long monotonicSeconds, const char* functionName,
                                  const char* format, va_list args,
                                  DateTimeCache* dateCache = nullptr)
    __attribute__((format(printf, 9, 0)));

// "<date> <file>(<line>): <level>: <account> <function> <message>", no newline
// added. Unlike the JSON form, a message that does not fit drops the line (-1).
int32_t FormatLogLineVaArgs(char* buffer, size_t capacity, const char* levelName,
                            const char* sourceFile, const char* accountId, int line, time_t seconds,
                            const char* functionName, const char* format, va_list args)
    __attribute__((format(printf, 9, 0)));

// The 101-byte header {"account_id": "<id>"}, padded with blanks to byte 100
// and ended by a newline at byte 100; returns 101. -1 for a capacity below
// 102 and for an id over 81 characters once escaped as a JSON string (quotes,
// backslashes and control characters): such an id cannot be shown in the fixed
// width, and the header is refused rather than cut or widened, so a header
// rewritten in place never runs into the first log line.
int32_t FormatAccountIDHeaderLine(char* buffer, size_t capacity, const char* accountId);

}  // namespace LogLineFormatter
