#include "watchdog/Config.h"

#include <array>
#include <cstring>

#include "agent/src/infra/io/ConfigFileReader.h"
#include "common/Log.h"
#include "common/StringUtils.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_WATCHDOG;
constexpr size_t kMaxKeySize = 65;     // keys of at most 64 characters
constexpr size_t kMaxValueSize = 129;  // values of at most 128 characters

// One key's value; only the member of the key's type is ever used.
union ConfigSlot {
  char str[132];
  int32_t i;
  uint8_t b;
};
static_assert(sizeof(ConfigSlot) == 132, "a value slot is 132 bytes");

const char* const cfgStrs[CFG_NUM_OF_KEYS + 1] = {
    "agentSymLinkPath",
    "systemExecSymLinkPath",
    "moduleSymLinkPath",
    "controlScriptPath",
    "teardownScriptPath",
    "libPath",
    "downloadDir",
    "dnsServers",
    "wdLogDir",
    "wdLogPath",
    "cpuAffinityMask",
    "cpuCoresNumber",
    "setLdLibPath",
    "localVersionPath",
    "pidFilePath",
    "DelayTimeIncreaseSec",
    "MaxDelayPeriodSec",
    "ConcurrentCleanupSec",
    "SleepOnCriticalErrorSec",
    "CriticalErrorRetries",
    "Normal1NumEvents",
    "Normal1DurationSec",
    "Normal1Result",
    "Normal2NumEvents",
    "Normal2DurationSec",
    "Normal2Result",
    "Normal3NumEvents",
    "Normal3DurationSec",
    "Normal3Result",
    "Safe1NumEvents",
    "Safe1DurationSec",
    "Safe1Result",
    "Safe2NumEvents",
    "Safe2DurationSec",
    "Safe2Result",
    "Safe3NumEvents",
    "Safe3DurationSec",
    "Safe3Result",
    "ProcModulesRetries",
    nullptr,
};

constexpr ConfigValueType S = CFG_TYPE_STRING;
constexpr ConfigValueType I = CFG_TYPE_INT;
constexpr ConfigValueType B = CFG_TYPE_BOOL;
const ConfigValueType cfgTypes[CFG_NUM_OF_KEYS] = {
    S, S, S, S, S, S, S, S, S, S,  // 0..9
    I, I, B, S, S,                 // 10..14
    I, I, I, I, I,                 // 15..19
    I, I, I, I, I, I, I, I, I,     // 20..28 normal-mode policies
    I, I, I, I, I, I, I, I, I,     // 29..37 safe-mode policies
    I,                             // 38
};

constexpr ConfigSlot Str(const char* text) {
  ConfigSlot slot{};
  for (size_t n = 0; text[n] != '\0'; ++n) slot.str[n] = text[n];
  return slot;
}
constexpr ConfigSlot Int(int32_t value) { return ConfigSlot{.i = value}; }
constexpr ConfigSlot Bool(bool value) { return ConfigSlot{.b = static_cast<uint8_t>(value)}; }

constexpr std::array<ConfigSlot, CFG_NUM_OF_KEYS> kDefaults = {
    Str("/var/quillmor/quillmorUserAgent"),
    Str("/var/quillmor/quillmorSystemExec"),
    Str("/var/quillmor/quillmorKernelAgent"),
    Str("/var/quillmor/quillmor_control.sh"),
    Str("/var/quillmor/quillmor_teardown.sh"),
    Str("/var/quillmor"),
    Str("/var/quillmor"),
    Str("2001:4860:4860::8888,2001:4860:4860::8844,8.8.8.8,8.8.4.4"),
    Str("/var/log/quillmor"),
    Str("WatchdogLogger"),
    Int(0),       // cpuAffinityMask
    Int(2),       // cpuCoresNumber
    Bool(false),  // setLdLibPath
    Str(""),      // localVersionPath
    Str(""),      // pidFilePath
    Int(10),      // DelayTimeIncreaseSec
    Int(600),     // MaxDelayPeriodSec
    Int(900),     // ConcurrentCleanupSec
    Int(3600),    // SleepOnCriticalErrorSec
    Int(72),      // CriticalErrorRetries
    Int(10),
    Int(900),
    Int(2),  // Normal1
    Int(5),
    Int(300),
    Int(1),  // Normal2
    Int(0),
    Int(0),
    Int(0),  // Normal3
    Int(1),
    Int(5),
    Int(1),  // Safe1
    Int(0),
    Int(0),
    Int(0),  // Safe2
    Int(0),
    Int(0),
    Int(0),  // Safe3
    Int(3),  // ProcModulesRetries
};

std::array<ConfigSlot, CFG_NUM_OF_KEYS> cfgValues = kDefaults;

bool HasType(uint32_t key, ConfigValueType type) {
  return key < CFG_NUM_OF_KEYS && cfgTypes[key] == type;
}

// The type shown in the wrong-key messages; -1 for a number past the table.
int TypeForLog(uint32_t key) {
  return key < CFG_NUM_OF_KEYS ? static_cast<int>(cfgTypes[key]) : -1;
}

// CFG_NUM_OF_KEYS when the name is not in the table.
uint32_t FindKey(const char* name) {
  uint32_t key = 0;
  while (key < CFG_NUM_OF_KEYS && std::strcmp(cfgStrs[key], name) != 0) ++key;
  return key;
}

// Stores one value read from the file; false when the load must fail.
bool StoreReadValue(uint32_t key, const char* name, const char* value) {
  switch (cfgTypes[key]) {
    case CFG_TYPE_STRING:
      SafeStrCopy(cfgValues[key].str, kMaxValueSize, value);
      return true;
    case CFG_TYPE_INT: {
      // Parsed aside: a failed parse must not leave its partial number behind.
      int32_t parsed = 0;
      if (!ParseIntStr(&parsed, value)) {
        QWD_LOG_ERROR(kComponent, "Failed reading key '%s'(%d) value '%s'\n", name,
                      static_cast<int>(key), value);
        return false;
      }
      cfgValues[key].i = parsed;
      return true;
    }
    case CFG_TYPE_BOOL:
      cfgValues[key].b = StrToBool(value) ? 1 : 0;
      return true;
  }
  QWD_LOG_ERROR(kComponent, "key '%s'(%d) is of type %d?\n", name, static_cast<int>(key),
                static_cast<int>(cfgTypes[key]));
  return false;
}

}  // namespace

namespace Config {

bool Init(const char* path) {
  if (!QWD_ASSERT(kComponent, path != nullptr, "path != NULL")) return false;
  std::unique_ptr<ConfigFileReader> reader = CreateConfigFileReader(path, 0);
  if (!reader) {
    QWD_LOG_ERROR(kComponent, "Can't create config file reader object for config file '%s'\n",
                  path);
    return false;
  }
  char key[kMaxKeySize];
  char value[kMaxValueSize];
  // Reading stops at the end of the file, at an unopenable file and at the
  // first malformed line alike: what was read so far is kept and the load
  // succeeds.
  while (reader->ReadKeyValue(key, sizeof(key), value, sizeof(value))) {
    if (key[0] == '\0') continue;
    const uint32_t found = FindKey(key);
    if (found == CFG_NUM_OF_KEYS) {
      QWD_LOG_ERROR(kComponent, "Read unknown key '%s' with value '%s', ignoring\n", key, value);
      continue;
    }
    if (!StoreReadValue(found, key, value)) return false;
  }
  return true;
}

void Teardown() {}

const char* GetStrValue(uint32_t key) {
  if (!HasType(key, CFG_TYPE_STRING)) {
    QWD_LOG_ERROR(kComponent, "Trying to get string value for key %d, type %d\n",
                  static_cast<int>(key), TypeForLog(key));
    return "N/A";
  }
  return cfgValues[key].str;
}

int32_t GetIntValue(uint32_t key) {
  if (!HasType(key, CFG_TYPE_INT)) {
    QWD_LOG_ERROR(kComponent, "Trying to get integer value for key %d, type %d\n",
                  static_cast<int>(key), TypeForLog(key));
    return 0;
  }
  return cfgValues[key].i;
}

bool GetBoolValue(uint32_t key) {
  if (!HasType(key, CFG_TYPE_BOOL)) {
    QWD_LOG_ERROR(kComponent, "Trying to get boolean value for key %d, type %d\n",
                  static_cast<int>(key), TypeForLog(key));
    return false;
  }
  return cfgValues[key].b != 0;
}

const char* GetName(uint32_t key) {
  if (key >= CFG_NUM_OF_KEYS) {
    QWD_LOG_ERROR(kComponent, "Trying to get name for key %d?\n", static_cast<int>(key));
    return cfgStrs[CFG_NUM_OF_KEYS];
  }
  return cfgStrs[key];
}

ConfigValueType GetType(uint32_t key) {
  if (key >= CFG_NUM_OF_KEYS) {
    QWD_LOG_ERROR(kComponent, "Trying to get type for key %d?\n", static_cast<int>(key));
    return cfgTypes[CFG_CONTROL_SCRIPT_PATH];
  }
  return cfgTypes[key];
}

void SetStrValue(uint32_t key, const char* value) {
  if (!QWD_ASSERT(kComponent, value != nullptr, "value != NULL")) return;
  if (!HasType(key, CFG_TYPE_STRING)) {
    QWD_LOG_ERROR(kComponent, "Trying to set string value '%s' for key %d, type %d\n", value,
                  static_cast<int>(key), TypeForLog(key));
    return;
  }
  if (ShouldLogComponent(kComponent, LoggerLevel::VERBOSE)) {
    PrintLogLineWOLevelCheck(kComponent, __func__, LoggerLevel::VERBOSE, __FILE__, __LINE__,
                             "'%s': '%s' -> '%s'\n", cfgStrs[key], cfgValues[key].str, value);
  }
  SafeStrCopy(cfgValues[key].str, kMaxValueSize, value);
}

void SetIntValue(uint32_t key, int32_t value) {
  if (!HasType(key, CFG_TYPE_INT)) {
    QWD_LOG_ERROR(kComponent, "Trying to set integer value %d for key %d, type %d\n",
                  static_cast<int>(value), static_cast<int>(key), TypeForLog(key));
    return;
  }
  if (ShouldLogComponent(kComponent, LoggerLevel::VERBOSE)) {
    PrintLogLineWOLevelCheck(kComponent, __func__, LoggerLevel::VERBOSE, __FILE__, __LINE__,
                             "'%s': %d -> %d\n", cfgStrs[key], static_cast<int>(cfgValues[key].i),
                             static_cast<int>(value));
  }
  cfgValues[key].i = value;
}

void SetBoolValue(uint32_t key, bool value) {
  if (!HasType(key, CFG_TYPE_BOOL)) {
    QWD_LOG_ERROR(kComponent, "Trying to set boolean value %s for key %d, type %d\n",
                  BoolToStr(value), static_cast<int>(key), TypeForLog(key));
    return;
  }
  if (ShouldLogComponent(kComponent, LoggerLevel::VERBOSE)) {
    PrintLogLineWOLevelCheck(kComponent, __func__, LoggerLevel::VERBOSE, __FILE__, __LINE__,
                             "'%s': %s -> %s\n", cfgStrs[key], BoolToStr(cfgValues[key].b),
                             BoolToStr(value));
  }
  cfgValues[key].b = value ? 1 : 0;
}

void ResetToDefaults() { cfgValues = kDefaults; }

}  // namespace Config
