#pragma once

// Bounded string handling shared by every module. Every copy into a fixed
// character field goes through these: they never overrun the destination and
// report truncation (copies by -1 and a log line, appends by the log line).

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

// Copies src into dst (dstSize bytes, terminator included). Returns the number
// of characters copied, or -1 when src had to be cut (logged at INFO).
int32_t SafeStrCopy(char* dst, size_t dstSize, const char* src);
// As SafeStrCopy without the log line, for the logger itself.
int32_t SafeStrCopyNoLogs(char* dst, size_t dstSize, const char* src);
// As SafeStrCopy, but src is read up to maxLen bytes and need not be terminated.
int32_t SafeStrnCopy(char* dst, size_t dstSize, const char* src, size_t maxLen);
// Appends src to the text in dst; truncation shows only in the log. Returns dst.
char* SafeStrCat(char* dst, size_t dstSize, const char* src);

template <size_t N>
int32_t SafeStrCopy(std::array<char, N>& dst, const char* src) {
  return SafeStrCopy(dst.data(), N, src);
}
template <size_t N>
char* SafeStrCat(std::array<char, N>& dst, const char* src) {
  return SafeStrCat(dst.data(), N, src);
}

// Last occurrence of ch among the first maxLen characters of str, or nullptr.
const char* SafeStrrchr(const char* str, char ch, size_t maxLen);

// Heap copy of str; nullptr for a null argument or a failed allocation.
std::unique_ptr<char[]> DuplicateString(const char* str);

// Copies the leading token of src, up to the first character of delim, into
// dst. Returns the token's length (cut silently to dstSize - 1), 0 on bad
// arguments (logged) or when src starts with the delimiter.
int32_t GetTokenByDelimiter(const char* src, char* dst, size_t dstSize, const char* delim);

// strtol with base 0 ("0x" hex, leading "0" octal). True when the whole text was
// consumed; the value is stored either way and "" parses as 0.
bool ParseIntStr(int32_t* out, const char* str);

// "True" or "False"; only the low byte of b counts.
const char* BoolToStr(uint32_t b);
// True exactly for "true" in any letter case.
bool StrToBool(const char* str);
// Accepts exactly "true" or "false" in any case, storing 1 or 0 in *out.
bool StrToBoolStrict(const char* str, uint8_t* out);

// Escapes src as a JSON string value; control characters get doubled
// backslashes so the result survives a second level of quoting. True when
// every source byte was written.
bool EscapeJsonString(const char* src, char* dst, size_t dstSize);

// Copies min(n, dstSize - 1) bytes, NULs included, with every byte outside
// 0x20..0x7E shown as '.'. Returns dst.
char* MakePrintableCopy(char* dst, size_t dstSize, const char* src, size_t n);

// Replaces every `from` by `to` among the first maxLen characters of str.
void ReplaceCharInString(char* str, size_t maxLen, char from, char to);

// The families of log files of the whole agent.
namespace LogEntity {

enum Value : uint32_t {
  AGENT_LOGGER = 0,
  KERNEL_LOGGER = 1,
  SYSTEM_LOGGER = 2,
  NGET_LOGGER = 3,
  WATCHDOG_LOGGER = 4,
  WATCHDOG_STACK_TRACE = 5,
  AGENT_STACK_TRACE = 6,
  SYSTEM_STACK_TRACE = 7,
  NUM_OF = 8,  // no such entity
};

// Exact, case-sensitive match against the eight names; NUM_OF when none.
Value GetEnumFromStr(const char* name);
// "N/A" from NUM_OF on.
const char* ToStr(uint32_t entity);
// Files in the family's rotation, -1 from NUM_OF on.
int32_t ToNumFiles(uint32_t entity);
// Size limit of one file in bytes, -1 from NUM_OF on.
int32_t ToFileSize(uint32_t entity);

}  // namespace LogEntity
