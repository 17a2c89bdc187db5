#pragma once

// The program's version and the prefix that every log file name of the agent
// begins with ("Quillmor_40.5.21.71902_WatchdogLogger").

#include <cstddef>
#include <cstdint>

constexpr uint32_t kQuillmorVersionMajor = 40;
constexpr uint32_t kQuillmorVersionMinor = 5;
constexpr uint32_t kQuillmorVersionPatch = 21;
constexpr const char kQuillmorBuildNumber[] = "71902";

// "%u.%u.%u.%s" with the build number when withBuild, else "%u.%u.%u";
// truncated silently to size. Returns dst.
char* GetSemVerStr(char* dst, size_t size, uint32_t major, uint32_t minor, uint32_t patch,
                   bool withBuild);
// The full version, "40.5.21.71902". The third argument is unused.
char* GetQuillmorVersionStr(char* dst, size_t size, bool unused);
// "Quillmor_<version>_<logName>". Returns dst.
char* PrepareLogFilePrefix(char* dst, size_t size, const char* logName);

// Parses "Quillmor_<maj>.<min>.<patch>.<build>_<entity>_<rest>": fills the
// version ("40.5.21.71902") and the entity name, and returns a pointer just
// past the entity's delimiter, or nullptr (logged at WARN) when the name does
// not follow the grammar or the entity is unknown. Engineering builds are
// always rejected.
const char* ExtractPrefixDataFromLogFileName(const char* fileName, char* versionOut,
                                             size_t versionSize, char* entityOut,
                                             size_t entitySize);
