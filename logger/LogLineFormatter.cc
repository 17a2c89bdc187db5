#include "logger/LogLineFormatter.h"

#include "common/LogFormat.h"

#include <cstdio>
#include <cstring>

#include "common/StringUtils.h"

namespace LogLineFormatter {

namespace {

// Builds a line from pieces, never past the capacity; the line as a whole
// fails when it would not fit strictly (room for the terminating zero).
class LineBuilder {
 public:
  LineBuilder(char* buffer, size_t capacity) : buffer_(buffer), capacity_(capacity) {}

  void Append(const char* text, size_t length) {
    if (failed_ || length >= capacity_ - used_) {
      failed_ = true;
      return;
    }
    std::memcpy(buffer_ + used_, text, length);
    used_ += length;
  }
  void Append(const char* text) {
    if (text == nullptr) text = "(null)";  // as printf shows it
    Append(text, std::strlen(text));
  }
  void AppendNumber(long value) {
    char digits[24];
    char* first = digits + sizeof(digits);
    unsigned long magnitude = value < 0 ? 0UL - static_cast<unsigned long>(value) : value;
    do {
      *--first = static_cast<char>('0' + magnitude % 10);
      magnitude /= 10;
    } while (magnitude != 0);
    if (value < 0) *--first = '-';
    Append(first, static_cast<size_t>(digits + sizeof(digits) - first));
  }
  // The message as FormatMessage cuts it, escaped. With room for the longest
  // cut message it is formatted in place: no message buffer on the stack,
  // which this path, the deepest of the watchdog's, would make deeper still.
  __attribute__((format(printf, 2, 0))) void AppendMessage(const char* format, va_list args) {
    if (failed_ || capacity_ - used_ < kMessageSize) {
      AppendMessageAside(format, args);
      return;
    }
    char* message = buffer_ + used_;
    FormatMessage(message, kMessageSize, format, args);
    EscapeMessage(message);
    used_ += std::strlen(message);
  }
  // Zero-terminates what was built; the length, or -1 when something did not fit.
  int32_t Finish() {
    if (capacity_ != 0) buffer_[used_] = '\0';
    return failed_ ? -1 : static_cast<int32_t>(used_);
  }

 private:
  char* buffer_;         // the caller's buffer
  size_t capacity_;      // its size
  size_t used_ = 0;      // bytes built so far
  bool failed_ = false;  // a piece did not fit

  __attribute__((noinline, format(printf, 2, 0))) void AppendMessageAside(const char* format,
                                                                          va_list args) {
    char message[kMessageSize];
    FormatMessage(message, sizeof(message), format, args);
    EscapeMessage(message);
    Append(message);
  }
};
constexpr char kHumanReadablePrefixFormat[] = " %s(%d): %s: %s %s ";
constexpr size_t kHeaderMinCapacity = 102;

}  // namespace

int32_t FormatMessage(char* buffer, size_t capacity, const char* format, va_list args) {
  if (buffer == nullptr || capacity == 0) return -1;
  const int result = std::vsnprintf(buffer, capacity, format, args);
  if (result >= 0 && static_cast<size_t>(result) < capacity) return result;
  if (capacity >= kTruncMarkSize) {
    std::memcpy(buffer + capacity - kTruncMarkSize, kTruncMark, kTruncMarkSize);
  } else {
    buffer[capacity - 1] = '\0';  // no room for the mark: the cut stays unmarked
  }
  return static_cast<int32_t>(capacity);
}

void EscapeMessage(char* text) {
  for (unsigned char* p = reinterpret_cast<unsigned char*>(text); *p != 0; ++p) {
    if (*p < 0x20) {
      *p = ' ';
    } else if (*p == '"') {
      *p = '\'';
    } else if (*p == '\\') {
      *p = '/';
    }
  }
}

size_t FormatDateTime(char* buffer, size_t capacity, time_t seconds) {
  struct tm local {};
  if (localtime_r(&seconds, &local) == nullptr) return 0;
  return std::strftime(buffer, capacity, LogFormat::kTimeFormat, &local);
}

size_t DateTimeCache::Format(char* buffer, size_t capacity, time_t seconds) {
  if (length_ == 0 || seconds != seconds_) {
    length_ = FormatDateTime(text_, sizeof(text_), seconds);
    seconds_ = seconds;
  }
  if (length_ == 0 || length_ >= capacity) return 0;
  std::memcpy(buffer, text_, length_ + 1);
  return length_;
}

int32_t FormatLogLineVaArgsAsJson(char* buffer, size_t capacity, const char* levelName,
                                  const char* sourceFile, int line, time_t wallClockSeconds,
                                  long monotonicSeconds, const char* /*functionName*/,
                                  const char* format, va_list args, DateTimeCache* dateCache) {
  char dateTime[kDateTimeSize];
  const size_t dateLength = dateCache != nullptr
                                ? dateCache->Format(dateTime, sizeof(dateTime), wallClockSeconds)
                                : FormatDateTime(dateTime, sizeof(dateTime), wallClockSeconds);
  if (dateLength == 0) return -1;
  // Built piece by piece rather than by snprintf, which would scan the fixed
  // text and copy the message once more on every line.
  LineBuilder json(buffer, capacity);
  json.Append(QWD_LOG_JSON_BEFORE_LEVEL);
  json.Append(levelName);
  json.Append(QWD_LOG_JSON_BEFORE_TIMESTAMP);
  json.AppendNumber(monotonicSeconds);
  json.Append(QWD_LOG_JSON_BEFORE_TIME);
  json.Append(dateTime, dateLength);
  json.Append(QWD_LOG_JSON_BEFORE_FILE);
  json.Append(sourceFile);
  json.Append(QWD_LOG_JSON_BEFORE_LINE);
  json.AppendNumber(line);
  json.Append(QWD_LOG_JSON_BEFORE_MESSAGE);
  json.AppendMessage(format, args);
  json.Append(QWD_LOG_JSON_END);
  return json.Finish();
}

int32_t FormatLogLineVaArgs(char* buffer, size_t capacity, const char* levelName,
                            const char* sourceFile, const char* accountId, int line, time_t seconds,
                            const char* functionName, const char* format, va_list args) {
  const size_t dateLength = FormatDateTime(buffer, capacity, seconds);
  if (dateLength == 0) return -1;
  size_t used = dateLength;
  const int prefix = std::snprintf(buffer + used, capacity - used, kHumanReadablePrefixFormat,
                                   sourceFile, line, levelName, accountId, functionName);
  if (prefix < 0 || static_cast<size_t>(prefix) >= capacity - used) return -1;
  used += static_cast<size_t>(prefix);
  const size_t room = capacity - used;
  const int32_t message = FormatMessage(buffer + used, room, format, args);
  if (message < 0 || static_cast<size_t>(message) >= room) return -1;
  return static_cast<int32_t>(used) + message;
}

int32_t FormatAccountIDHeaderLine(char* buffer, size_t capacity, const char* accountId) {
  if (buffer == nullptr || accountId == nullptr || capacity < kHeaderMinCapacity) return -1;
  // The id comes from the agent: escaped as a JSON string, no quote, backslash
  // or newline of its own can end the header early or forge a line after it.
  char escaped[kHeaderLineLength];
  if (!EscapeJsonString(accountId, escaped, sizeof(escaped))) return -1;
  // Bounded to the header's width, so an id that does not fit never reaches byte 100.
  const int length = std::snprintf(buffer, kHeaderLineLength, QWD_LOG_HEADER_FORMAT, escaped);
  if (length < 0 || length >= kHeaderLineLength) return -1;
  std::memset(buffer + length, ' ', static_cast<size_t>(kHeaderLineLength - 1 - length));
  buffer[kHeaderLineLength - 1] = '\n';
  buffer[kHeaderLineLength] = '\0';
  return kHeaderLineLength;
}

}  // namespace LogLineFormatter
