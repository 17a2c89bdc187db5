#include "common/io/ConfigFileReader.h"

#include <cstring>
#include <new>

#include "common/Log.h"
#include "common/StringUtils.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_INFRA_IO;

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// Locale-independent on purpose: the file must parse the same on every device.
bool IsWordChar(char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return c != '\0' && std::strchr("_-.:,/*", c) != nullptr;
}

size_t SkipBlanks(const char* line, size_t pos) {
  while (IsBlank(line[pos])) ++pos;
  return pos;
}

size_t WordLength(const char* text) {
  size_t len = 0;
  while (IsWordChar(text[len])) ++len;
  return len;
}

// Copies a run of len characters when it is non-empty and fits in dstSize.
bool CopyRun(char* dst, int32_t dstSize, const char* run, size_t len) {
  if (len == 0 || len >= static_cast<size_t>(dstSize)) return false;
  SafeStrnCopy(dst, static_cast<size_t>(dstSize), run, len);
  return true;
}

// text starts at the opening quote, so it always holds the two characters
// (quote and terminator) that a shorter buffer would lack.
bool ReadQuotedWord(const char* text, char* value, int32_t valueSize) {
  QWD_LOG_DEBUG(kComponent, "Reading quoted word from .cfg file\n");
  const char* closing = std::strchr(text + 1, '"');
  if (closing == nullptr) {
    QWD_LOG_ERROR(kComponent, "Could not find closing quotation mark for configuration word\n");
    return false;
  }
  QWD_LOG_DEBUG(kComponent, "Found configuration vars with a quoted value\n");
  return CopyRun(value, valueSize, text + 1, static_cast<size_t>(closing - text - 1));
}

}  // namespace

std::unique_ptr<ConfigFileReader> CreateConfigFileReader(const char* path, int32_t closeAllowed) {
  std::unique_ptr<ConfigFileReader> reader(new (std::nothrow) ConfigFileReader());
  if (!reader || !reader->ConfigFileReaderCtor(path, closeAllowed)) return nullptr;
  return reader;
}

bool ConfigFileReader::ConfigFileReaderCtor(const char* path, int32_t closeAllowed) {
  return FileReaderCtor(path, closeAllowed);
}

bool ConfigFileReader::ReadKeyValue(char* key, int32_t keySize, char* value, int32_t valueSize) {
  if (!QWD_ASSERT(kComponent, key != nullptr && value != nullptr && keySize > 0 && valueSize > 0,
                  "key != NULL && value != NULL && keySize > 0 && valueSize > 0")) {
    return false;
  }
  if (static_cast<int64_t>(keySize) + valueSize > kMaxLineLength) {
    QWD_LOG_ERROR(kComponent, "key length %d plus value length %d larger than line length %d\n",
                  keySize, valueSize, kMaxLineLength);
    return false;
  }
  char line[kMaxLineLength];
  if (ReadLine(line, kMaxLineLength) == 0) {
    QWD_LOG_VERBOSE(kComponent, "Failed reading line\n");
    return false;
  }
  QWD_LOG_VERBOSE(kComponent, "Read line '%s'\n", line);

  size_t pos = SkipBlanks(line, 0);
  if (line[pos] == '\n' || line[pos] == '#' || line[pos] == '\0') {
    key[0] = '\0';
    value[0] = '\0';
    return true;
  }

  const size_t keyLen = WordLength(line + pos);
  if (!CopyRun(key, keySize, line + pos, keyLen)) {
    key[0] = '\0';
    QWD_LOG_ERROR(kComponent, "Couldn't read key from line '%s'\n", line);
    return false;
  }
  pos = SkipBlanks(line, pos + keyLen);
  if (line[pos] != '=') {
    QWD_LOG_ERROR(kComponent, "Couldn't find = symbol in line '%s', expected at idx %d, got %c\n",
                  line, static_cast<int>(pos), line[pos]);
    return false;
  }
  pos = SkipBlanks(line, pos + 1);

  const char* text = line + pos;
  const bool valueRead = text[0] == '"' ? ReadQuotedWord(text, value, valueSize)
                                        : CopyRun(value, valueSize, text, WordLength(text));
  if (!valueRead) {
    value[0] = '\0';
    QWD_LOG_ERROR(kComponent, "Couldn't read value from line '%s'\n", line);
    return false;
  }
  return true;
}
