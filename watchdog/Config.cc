#include "watchdog/Config.h"

#include <array>
#include <cstring>

#include "common/Log.h"
#include "common/StringUtils.h"
#include "common/io/ConfigFileReader.h"
#include "watchdog/StartupReport.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_WATCHDOG;
constexpr size_t kMaxKeySize = 65;     // keys of at most 64 characters
constexpr size_t kMaxValueSize = 129;  // values of at most 128 characters

constexpr size_t kMaxNameSize = 24;     // the longest key name and its '\0'
constexpr size_t kMaxDefaultSize = 64;  // the longest default text and its '\0'

// Texts held in place, not pointed to: the table then needs no relocation at
// load and stays shared with the file.
struct KeyRow {
  char name[kMaxNameSize];
  ConfigValueType type;
  int32_t number;              // the default of an integer or boolean key
  char text[kMaxDefaultSize];  // the default of a string key
};

constexpr KeyRow Row(const char* name, ConfigValueType type, int32_t number, const char* text) {
  KeyRow row{{}, type, number, {}};
  // A text too long for its array fails to compile at its terminator.
  size_t n = 0;
  for (; name[n] != '\0'; ++n) row.name[n] = name[n];
  row.name[n] = '\0';
  for (n = 0; text[n] != '\0'; ++n) row.text[n] = text[n];
  row.text[n] = '\0';
  return row;
}
constexpr KeyRow Str(const char* name, const char* text) {
  return Row(name, CFG_TYPE_STRING, 0, text);
}
constexpr KeyRow Int(const char* name, int32_t value) { return Row(name, CFG_TYPE_INT, value, ""); }
constexpr KeyRow Bool(const char* name, bool value) {
  return Row(name, CFG_TYPE_BOOL, value ? 1 : 0, "");
}

// Indexed by ConfigKey: the numbers are the keys' places here.
constexpr KeyRow kKeys[CFG_NUM_OF_KEYS] = {
    Str("agentSymLinkPath", "/var/quillmor/quillmorUserAgent"),
    Str("systemExecSymLinkPath", "/var/quillmor/quillmorSystemExec"),
    Str("moduleSymLinkPath", "/var/quillmor/quillmorKernelAgent"),
    Str("controlScriptPath", "/var/quillmor/quillmor_control.sh"),
    Str("teardownScriptPath", "/var/quillmor/quillmor_teardown.sh"),
    Str("libPath", "/var/quillmor"),
    Str("downloadDir", "/var/quillmor"),
    Str("dnsServers", "2001:4860:4860::8888,2001:4860:4860::8844,8.8.8.8,8.8.4.4"),
    Str("wdLogDir", "/var/log/quillmor"),
    Str("wdLogPath", "WatchdogLogger"),
    Int("cpuAffinityMask", 0),
    Int("cpuCoresNumber", 2),
    Bool("setLdLibPath", false),
    Str("localVersionPath", ""),
    Str("pidFilePath", ""),
    Int("DelayTimeIncreaseSec", 10),
    Int("MaxDelayPeriodSec", 600),
    Int("ConcurrentCleanupSec", 900),
    Int("SleepOnCriticalErrorSec", 3600),
    Int("CriticalErrorRetries", 72),
    Int("Normal1NumEvents", 10),
    Int("Normal1DurationSec", 900),
    Int("Normal1Result", 2),
    Int("Normal2NumEvents", 5),
    Int("Normal2DurationSec", 300),
    Int("Normal2Result", 1),
    Int("Normal3NumEvents", 0),
    Int("Normal3DurationSec", 0),
    Int("Normal3Result", 0),
    Int("Safe1NumEvents", 1),
    Int("Safe1DurationSec", 5),
    Int("Safe1Result", 1),
    Int("Safe2NumEvents", 0),
    Int("Safe2DurationSec", 0),
    Int("Safe2Result", 0),
    Int("Safe3NumEvents", 0),
    Int("Safe3DurationSec", 0),
    Int("Safe3Result", 0),
    Int("ProcModulesRetries", 3),
};
static_assert(kKeys[CFG_NUM_OF_KEYS - 1].name[0] != '\0', "a row for every key");

constexpr size_t CountStringKeys() {
  size_t count = 0;
  for (const KeyRow& row : kKeys) count += row.type == CFG_TYPE_STRING ? 1 : 0;
  return count;
}
constexpr size_t kNumStringKeys = CountStringKeys();

// Where each string key keeps its text among the string slots.
constexpr std::array<uint8_t, CFG_NUM_OF_KEYS> StringSlots() {
  std::array<uint8_t, CFG_NUM_OF_KEYS> slots{};
  uint8_t next = 0;
  for (size_t key = 0; key < CFG_NUM_OF_KEYS; ++key) {
    if (kKeys[key].type == CFG_TYPE_STRING) slots[key] = next++;
  }
  return slots;
}
constexpr std::array<uint8_t, CFG_NUM_OF_KEYS> kStringSlot = StringSlots();

// Only the strings take a text slot, so that the table is as small as the
// values it holds.
struct Values {
  int32_t number[CFG_NUM_OF_KEYS];           // integer and boolean keys, by key
  char text[kNumStringKeys][kMaxValueSize];  // string keys, by kStringSlot
};

constexpr Values Defaults() {
  Values values{};
  for (size_t key = 0; key < CFG_NUM_OF_KEYS; ++key) {
    values.number[key] = kKeys[key].number;
    if (kKeys[key].type != CFG_TYPE_STRING) continue;
    for (size_t n = 0; kKeys[key].text[n] != '\0'; ++n) {
      values.text[kStringSlot[key]][n] = kKeys[key].text[n];
    }
  }
  return values;
}

Values cfgValues = Defaults();

char* Text(uint32_t key) { return cfgValues.text[kStringSlot[key]]; }

bool HasType(uint32_t key, ConfigValueType type) {
  return key < CFG_NUM_OF_KEYS && kKeys[key].type == type;
}

// The type shown in the wrong-key messages; -1 for a number past the table.
int TypeForLog(uint32_t key) {
  return key < CFG_NUM_OF_KEYS ? static_cast<int>(kKeys[key].type) : -1;
}

// CFG_NUM_OF_KEYS when the name is not in the table.
uint32_t FindKey(const char* name) {
  uint32_t key = 0;
  while (key < CFG_NUM_OF_KEYS && std::strcmp(kKeys[key].name, name) != 0) ++key;
  return key;
}

// Stores one value read from the file; false when the load must fail.
bool StoreReadValue(uint32_t key, const char* value) {
  const char* name = kKeys[key].name;
  switch (kKeys[key].type) {
    case CFG_TYPE_STRING:
      SafeStrCopy(Text(key), kMaxValueSize, value);
      return true;
    case CFG_TYPE_INT: {
      // Parsed aside: a failed parse must not leave its partial number behind.
      int32_t parsed = 0;
      if (!ParseIntStr(&parsed, value)) {
        QWD_LOG_ERROR(kComponent, "Failed reading key '%s'(%d) value '%s'\n", name,
                      static_cast<int>(key), value);
        return false;
      }
      cfgValues.number[key] = parsed;
      return true;
    }
    case CFG_TYPE_BOOL:
      cfgValues.number[key] = StrToBool(value) ? 1 : 0;
      return true;
  }
  QWD_LOG_ERROR(kComponent, "key '%s'(%d) is of type %d?\n", name, static_cast<int>(key),
                static_cast<int>(kKeys[key].type));
  return false;
}

}  // namespace

namespace Config {

bool Init(const char* path) {
  if (!QWD_ASSERT(kComponent, path != nullptr, "path != NULL")) return false;
  StartupReport::CheckConfigFile(path);
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
  unsigned line = 1;
  for (; reader->ReadKeyValue(key, sizeof(key), value, sizeof(value)); ++line) {
    if (key[0] == '\0') continue;
    const uint32_t found = FindKey(key);
    if (found == CFG_NUM_OF_KEYS) {
      QWD_LOG_ERROR(kComponent, "Read unknown key '%s' with value '%s', ignoring\n", key, value);
      StartupReport::Say("warning: %s:%u: unknown key '%s' ignored", path, line, key);
      continue;
    }
    if (!StoreReadValue(found, value)) {
      StartupReport::Say("%s:%u: key '%s': value '%s' does not parse", path, line, key, value);
      return false;
    }
  }
  // Text left after the stop means a line was not understood (a malformed
  // last line looks like the end of the file and goes unreported).
  char rest[2];
  if (reader->ReadLine(rest, sizeof(rest)) > 0) {
    StartupReport::Say("warning: %s:%u: line not understood; it and the rest are ignored", path,
                       line);
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
  return Text(key);
}

int32_t GetIntValue(uint32_t key) {
  if (!HasType(key, CFG_TYPE_INT)) {
    QWD_LOG_ERROR(kComponent, "Trying to get integer value for key %d, type %d\n",
                  static_cast<int>(key), TypeForLog(key));
    return 0;
  }
  return cfgValues.number[key];
}

bool GetBoolValue(uint32_t key) {
  if (!HasType(key, CFG_TYPE_BOOL)) {
    QWD_LOG_ERROR(kComponent, "Trying to get boolean value for key %d, type %d\n",
                  static_cast<int>(key), TypeForLog(key));
    return false;
  }
  return cfgValues.number[key] != 0;
}

const char* GetName(uint32_t key) {
  if (key >= CFG_NUM_OF_KEYS) {
    QWD_LOG_ERROR(kComponent, "Trying to get name for key %d?\n", static_cast<int>(key));
    return nullptr;
  }
  return kKeys[key].name;
}

ConfigValueType GetType(uint32_t key) {
  if (key >= CFG_NUM_OF_KEYS) {
    QWD_LOG_ERROR(kComponent, "Trying to get type for key %d?\n", static_cast<int>(key));
    return kKeys[CFG_CONTROL_SCRIPT_PATH].type;
  }
  return kKeys[key].type;
}

void SetStrValue(uint32_t key, const char* value) {
  if (!QWD_ASSERT(kComponent, value != nullptr, "value != NULL")) return;
  if (!HasType(key, CFG_TYPE_STRING)) {
    QWD_LOG_ERROR(kComponent, "Trying to set string value '%s' for key %d, type %d\n", value,
                  static_cast<int>(key), TypeForLog(key));
    return;
  }
  QWD_LOG_VERBOSE(kComponent, "'%s': '%s' -> '%s'\n", kKeys[key].name, Text(key), value);
  SafeStrCopy(Text(key), kMaxValueSize, value);
}

void SetIntValue(uint32_t key, int32_t value) {
  if (!HasType(key, CFG_TYPE_INT)) {
    QWD_LOG_ERROR(kComponent, "Trying to set integer value %d for key %d, type %d\n",
                  static_cast<int>(value), static_cast<int>(key), TypeForLog(key));
    return;
  }
  QWD_LOG_VERBOSE(kComponent, "'%s': %d -> %d\n", kKeys[key].name,
                  static_cast<int>(cfgValues.number[key]), static_cast<int>(value));
  cfgValues.number[key] = value;
}

void SetBoolValue(uint32_t key, bool value) {
  if (!HasType(key, CFG_TYPE_BOOL)) {
    QWD_LOG_ERROR(kComponent, "Trying to set boolean value %s for key %d, type %d\n",
                  BoolToStr(value), static_cast<int>(key), TypeForLog(key));
    return;
  }
  QWD_LOG_VERBOSE(kComponent, "'%s': %s -> %s\n", kKeys[key].name, BoolToStr(cfgValues.number[key]),
                  BoolToStr(value));
  cfgValues.number[key] = value ? 1 : 0;
}

void ResetToDefaults() { cfgValues = Defaults(); }

void ResetIfNegative(uint32_t key) {
  if (!HasType(key, CFG_TYPE_INT) || cfgValues.number[key] >= 0) return;
  QWD_LOG_WARN(kComponent, "Config value '%s' = %d is negative, using its default %d\n",
               kKeys[key].name, static_cast<int>(cfgValues.number[key]),
               static_cast<int>(kKeys[key].number));
  cfgValues.number[key] = kKeys[key].number;
}

}  // namespace Config
