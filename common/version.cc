#include "common/version.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/Log.h"
#include "common/LogFormat.h"
#include "common/StringUtils.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_COMMON;
constexpr const char* kPrefix = LogFormat::kProductPrefix;
constexpr size_t kPrefixLen = sizeof(LogFormat::kProductPrefix) - 1;
constexpr char kEngineering[] = "engineering";
constexpr size_t kEngineeringLen = sizeof(kEngineering) - 1;

// Reads a decimal number that must start with a digit (no sign, no blank)
// and moves *pos past it.
bool ReadNumber(const char** pos, long* out) {
  if (!std::isdigit(static_cast<unsigned char>(**pos))) return false;
  char* end = nullptr;
  *out = std::strtol(*pos, &end, 10);
  *pos = end;
  return true;
}

// Walks "<maj>.<min>.<patch>.<build>_<entity>_" filling the outputs; on failure
// *pos is where parsing stopped.
bool ParsePrefixData(const char** pos, char* versionOut, size_t versionSize, char* entityOut,
                     size_t entitySize) {
  if (std::strncmp(*pos, kPrefix, kPrefixLen) != 0) return false;
  std::memset(versionOut, 0, versionSize);
  std::memset(entityOut, 0, entitySize);
  *pos += kPrefixLen;

  long number[3] = {};  // major, minor, patch, each followed by '.'
  for (long& n : number) {
    if (!ReadNumber(pos, &n) || **pos != '.') return false;
    ++*pos;
  }
  std::snprintf(versionOut, versionSize, "%u.%u.%u.", static_cast<uint32_t>(number[0]),
                static_cast<uint32_t>(number[1]), static_cast<uint32_t>(number[2]));

  if (std::strncmp(*pos, kEngineering, kEngineeringLen) == 0) {
    // Engineering builds are named but never accepted: the position stays on
    // the '.', so the '_' test below fails.
    SafeStrCat(versionOut, versionSize, kEngineering);
    --*pos;
  } else {
    long build = 0;
    if (!ReadNumber(pos, &build)) return false;
    char buildText[24];
    std::snprintf(buildText, sizeof(buildText), "%ld", build);
    SafeStrCat(versionOut, versionSize, buildText);
  }

  if (**pos != '_') return false;
  ++*pos;
  const int32_t entityLen = GetTokenByDelimiter(*pos, entityOut, entitySize, "_");
  if (entityLen < 1 || LogEntity::GetEnumFromStr(entityOut) >= LogEntity::NUM_OF) return false;
  *pos += entityLen + 1;
  return true;
}

}  // namespace

char* GetSemVerStr(char* dst, size_t size, uint32_t major, uint32_t minor, uint32_t patch,
                   bool withBuild) {
  if (withBuild) {
    std::snprintf(dst, size, "%u.%u.%u.%s", major, minor, patch, kQuillmorBuildNumber);
  } else {
    std::snprintf(dst, size, "%u.%u.%u", major, minor, patch);
  }
  return dst;
}

char* GetQuillmorVersionStr(char* dst, size_t size, bool /*unused*/) {
  return GetSemVerStr(dst, size, kQuillmorVersionMajor, kQuillmorVersionMinor,
                      kQuillmorVersionPatch, true);
}

char* PrepareLogFilePrefix(char* dst, size_t size, const char* logName) {
  char version[32];
  GetQuillmorVersionStr(version, sizeof(version), true);
  std::snprintf(dst, size, QWD_LOG_PREFIX_FORMAT, kPrefix, version, logName);
  return dst;
}

const char* ExtractPrefixDataFromLogFileName(const char* fileName, char* versionOut,
                                             size_t versionSize, char* entityOut,
                                             size_t entitySize) {
  if (fileName == nullptr || versionOut == nullptr || entityOut == nullptr || versionSize < 1 ||
      entitySize < 1) {
    return nullptr;
  }
  const char* pos = fileName;
  if (!ParsePrefixData(&pos, versionOut, versionSize, entityOut, entitySize)) {
    QWD_LOG_WARN(kComponent, "Failed parsing file prefix '%s'. Ignoring this file\n", pos);
    return nullptr;
  }
  return pos;
}
