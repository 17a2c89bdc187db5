#include "common/StringUtils.h"

#include <strings.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/Log.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_COMMON;
constexpr int kLoggedSourcePrefix = 20;
// Control characters with a one-letter JSON escape, and their letters.
constexpr char kShortEscaped[] = "\b\t\n\f\r";
constexpr char kShortEscapeLetters[] = "btnfr";

enum class CopyLog { kNone, kCopy, kCopyN };

// Shared body of the bounded copies: returns the copied length or -1 when cut.
// The two logging variants differ only in the run of blanks of their message.
int32_t BoundedCopy(char* dst, size_t dstSize, const char* src, size_t srcLen, CopyLog log) {
  if (dstSize == 0) return srcLen == 0 ? 0 : -1;  // no room even for the terminator
  const size_t capacity = dstSize - 1;
  const size_t n = capacity < srcLen ? capacity : srcLen;
  std::memcpy(dst, src, n);
  dst[n] = '\0';
  if (capacity >= srcLen) return static_cast<int32_t>(n);
  if (log != CopyLog::kNone) {
    // An unterminated SafeStrnCopy source ends at srcLen: print nothing beyond it.
    const int shown = srcLen < static_cast<size_t>(kLoggedSourcePrefix) ? static_cast<int>(srcLen)
                                                                        : kLoggedSourcePrefix;
    QWD_LOG_INFO(kComponent,
                 log == CopyLog::kCopy
                     ? "Can't fully copy a string - destination buffer is too small (%d) for "
                       "strlen = %d.                         Beginning of the string: '%.*s'\n"
                     : "Can't fully copy a string - destination buffer is too small (%d) for "
                       "strlen = %d.                     Beginning of the string: '%.*s'\n",
                 static_cast<int>(capacity), static_cast<int>(srcLen), shown, src);
  }
  return -1;
}

// Logs a null argument; unlike a bare log-and-go-on, the copy is then skipped
// (-1), since carrying on would dereference the null pointer.
bool CheckCopyArgs(const char* dst, const char* src) {
  return QWD_ASSERT(kComponent, dst != nullptr && src != nullptr, "dest != NULL && src != NULL");
}

}  // namespace

int32_t SafeStrCopy(char* dst, size_t dstSize, const char* src) {
  if (!CheckCopyArgs(dst, src)) return -1;
  return BoundedCopy(dst, dstSize, src, std::strlen(src), CopyLog::kCopy);
}

int32_t SafeStrCopyNoLogs(char* dst, size_t dstSize, const char* src) {
  if (!CheckCopyArgs(dst, src)) return -1;
  return BoundedCopy(dst, dstSize, src, std::strlen(src), CopyLog::kNone);
}

int32_t SafeStrnCopy(char* dst, size_t dstSize, const char* src, size_t maxLen) {
  if (!CheckCopyArgs(dst, src)) return -1;
  return BoundedCopy(dst, dstSize, src, strnlen(src, maxLen), CopyLog::kCopyN);
}

char* SafeStrCat(char* dst, size_t dstSize, const char* src) {
  if (!CheckCopyArgs(dst, src) || dstSize == 0) return dst;
  const size_t srcLen = std::strlen(src);
  const size_t used = strnlen(dst, dstSize);
  if (used == dstSize) return dst;  // unterminated destination: nowhere to append
  const size_t room = dstSize - 1 - used;
  const size_t n = srcLen < room ? srcLen : room;
  std::memcpy(dst + used, src, n);
  dst[used + n] = '\0';
  if (srcLen > room) {
    QWD_LOG_INFO(kComponent,
                 "Can't fully copy a string - destination buffer is too small (%d) for strlen = "
                 "%d.             Beginning of the string: '%.*s'\n",
                 static_cast<int>(room), static_cast<int>(srcLen), kLoggedSourcePrefix, src);
  }
  return dst;
}

const char* SafeStrrchr(const char* str, char ch, size_t maxLen) {
  if (str == nullptr) return nullptr;
  const char* last = nullptr;
  for (size_t i = 0; i < maxLen && str[i] != '\0'; ++i) {
    if (str[i] == ch) last = str + i;
  }
  return last;
}

std::unique_ptr<char[]> DuplicateString(const char* str) {
  if (str == nullptr) return nullptr;
  const size_t size = std::strlen(str) + 1;
  std::unique_ptr<char[]> copy(new (std::nothrow) char[size]);
  if (!copy) return nullptr;
  SafeStrCopy(copy.get(), size, str);
  copy[size - 1] = '\0';
  return copy;
}

int32_t GetTokenByDelimiter(const char* src, char* dst, size_t dstSize, const char* delim) {
  if (src == nullptr || dst == nullptr || delim == nullptr || dstSize < 1) {
    QWD_LOG_ERROR(kComponent, "ERROR: wrong parameters in the function GetTokenByDelimiter\n");
    return 0;
  }
  const char stop = delim[0];
  size_t len = 0;
  while (src[len] != '\0' && src[len] != stop) ++len;
  if (len >= dstSize) len = dstSize - 1;
  std::memcpy(dst, src, len);
  dst[len] = '\0';
  return static_cast<int32_t>(len);
}

bool ParseIntStr(int32_t* out, const char* str) {
  char* end = nullptr;
  *out = static_cast<int32_t>(std::strtol(str, &end, 0));
  return *end == '\0';
}

const char* BoolToStr(uint32_t b) { return (b & 0xFFu) != 0 ? "True" : "False"; }

bool StrToBool(const char* str) { return str != nullptr && strcasecmp(str, "true") == 0; }

bool StrToBoolStrict(const char* str, uint8_t* out) {
  if (str == nullptr || out == nullptr) return false;
  const size_t len = strnlen(str, 5);
  if (len == 4 && strncasecmp(str, "true", 4) == 0) {
    *out = 1;
    return true;
  }
  if (len == 5 && strncasecmp(str, "false", 5) == 0 && str[5] == '\0') {
    *out = 0;
    return true;
  }
  return false;
}

bool EscapeJsonString(const char* src, char* dst, size_t dstSize) {
  if (src == nullptr || dst == nullptr || dstSize == 0) return false;
  if (src[0] == '\0' || dstSize == 1) {
    dst[0] = '\0';
    return src[0] == '\0';
  }
  size_t pos = 0;
  size_t i = 0;
  for (; src[i] != '\0' && pos < dstSize - 1; ++i) {
    const auto c = static_cast<unsigned char>(src[i]);
    if (c < 0x20) {
      const char* shortForm = std::strchr(kShortEscaped, c);
      const int written = shortForm != nullptr
                              ? std::snprintf(dst + pos, dstSize - pos, "\\\\%c",
                                              kShortEscapeLetters[shortForm - kShortEscaped])
                              : std::snprintf(dst + pos, dstSize - pos, "\\\\u%04x", c);
      if (written < 0 || pos + static_cast<size_t>(written) >= dstSize) {
        dst[pos] = '\0';  // drop the partial escape
        return false;
      }
      pos += static_cast<size_t>(written);
    } else if (c == '"' || c == '\\') {
      if (pos >= dstSize - 2) break;
      dst[pos++] = '\\';
      dst[pos++] = static_cast<char>(c);
    } else {
      dst[pos++] = static_cast<char>(c);
    }
  }
  dst[pos] = '\0';
  return src[i] == '\0';
}

char* MakePrintableCopy(char* dst, size_t dstSize, const char* src, size_t n) {
  if (dst == nullptr || dstSize == 0) return dst;
  const size_t len = n < dstSize - 1 ? n : dstSize - 1;
  for (size_t i = 0; i < len; ++i) {
    const auto c = static_cast<unsigned char>(src[i]);
    dst[i] = (c >= 0x20 && c <= 0x7E) ? static_cast<char>(c) : '.';
  }
  dst[len] = '\0';
  return dst;
}

void ReplaceCharInString(char* str, size_t maxLen, char from, char to) {
  if (str == nullptr) return;
  for (size_t i = 0; i < maxLen && str[i] != '\0'; ++i) {
    if (str[i] == from) str[i] = to;
  }
}

namespace LogEntity {
namespace {

struct Row {
  const char* name;
  int32_t numFiles;
  int32_t fileSize;
};

constexpr Row kRows[NUM_OF] = {
    {"AgentLogger", 5, 100000},    {"KernelLogger", 3, 100000},    {"SystemLogger", 2, 25000},
    {"NgetLogger", 1, 50000},      {"WatchdogLogger", 2, 25000},   {"WatchdogStackTrace", 1, 50000},
    {"AgentStackTrace", 1, 50000}, {"SystemStackTrace", 1, 50000},
};

}  // namespace

Value GetEnumFromStr(const char* name) {
  if (name == nullptr) return NUM_OF;
  for (uint32_t i = 0; i < NUM_OF; ++i) {
    if (std::strcmp(name, kRows[i].name) == 0) return static_cast<Value>(i);
  }
  return NUM_OF;
}

const char* ToStr(uint32_t entity) { return entity < NUM_OF ? kRows[entity].name : "N/A"; }
int32_t ToNumFiles(uint32_t entity) { return entity < NUM_OF ? kRows[entity].numFiles : -1; }
int32_t ToFileSize(uint32_t entity) { return entity < NUM_OF ? kRows[entity].fileSize : -1; }

}  // namespace LogEntity
