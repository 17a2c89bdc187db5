#include "common/version.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/Log.h"
#include "common/StringUtils.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_COMMON;
constexpr char kPrefix[] = "Quillmor_";
constexpr size_t kPrefixLen = sizeof(kPrefix) - 1;
constexpr char kEngineering[] = "engineering";
constexpr size_t kEngineeringLen = sizeof(kEngineering) - 1;

// Reads one version number that must start with a digit and be followed by
// '.'; advances *pos onto that '.'.
bool ReadVersionNumber(const char** pos, uint32_t* out) {
  if (!std::isdigit(static_cast<unsigned char>(**pos))) return false;
  char* end = nullptr;
  const long value = std::strtol(*pos, &end, 10);
  if (end == *pos || *end != '.') return false;
  *out = static_cast<uint32_t>(value);
  *pos = end;
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
  std::snprintf(dst, size, "Quillmor_%s_%s", version, logName);
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
  bool parsed = false;
  do {
    if (std::strncmp(pos, kPrefix, kPrefixLen) != 0) break;
    std::memset(versionOut, 0, versionSize);
    std::memset(entityOut, 0, entitySize);
    pos += kPrefixLen;

    uint32_t major = 0, minor = 0, patch = 0;
    if (!ReadVersionNumber(&pos, &major)) break;
    ++pos;
    if (!ReadVersionNumber(&pos, &minor)) break;
    ++pos;
    if (!ReadVersionNumber(&pos, &patch)) break;
    std::snprintf(versionOut, versionSize, "%u.%u.%u.", major, minor, patch);
    ++pos;

    if (std::strncmp(pos, kEngineering, kEngineeringLen) == 0) {
      // Engineering builds are named but never accepted: the position stays
      // on the '.', so the '_' test below fails.
      SafeStrCat(versionOut, versionSize, kEngineering);
      --pos;
    } else {
      if (!std::isdigit(static_cast<unsigned char>(*pos))) break;
      char* end = nullptr;
      const long build = std::strtol(pos, &end, 10);
      if (end == pos) break;
      char buildText[24];
      std::snprintf(buildText, sizeof(buildText), "%ld", build);
      SafeStrCat(versionOut, versionSize, buildText);
      pos = end;
    }

    if (*pos != '_') break;
    ++pos;
    const int32_t entityLen = GetTokenByDelimiter(pos, entityOut, entitySize, "_");
    if (entityLen < 1 || LogEntity::GetEnumFromStr(entityOut) >= LogEntity::NUM_OF) break;
    pos += entityLen + 1;
    parsed = true;
  } while (false);

  if (!parsed) {
    QWD_LOG_WARN(kComponent, "Failed parsing file prefix '%s'. Ignoring this file\n", pos);
    return nullptr;
  }
  return pos;
}
