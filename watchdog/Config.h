#pragma once

// The watchdog's configuration: a fixed table of 39 keys, each with a name, a
// type and a compiled-in default, overwritten by what watchdog.cfg says. The
// key numbers are part of the interface.

#include <cstdint>

enum ConfigKey : uint32_t {
  CFG_AGENT_SYM_LINK_PATH = 0,           // string
  CFG_SYSTEM_EXEC_SYM_LINK_PATH = 1,     // string
  CFG_MODULE_SYM_LINK_PATH = 2,          // string
  CFG_CONTROL_SCRIPT_PATH = 3,           // string
  CFG_TEARDOWN_SCRIPT_PATH = 4,          // string
  CFG_LIB_PATH = 5,                      // string
  CFG_DOWNLOAD_DIR = 6,                  // string
  CFG_DNS_SERVERS = 7,                   // string
  CFG_WD_LOG_DIR = 8,                    // string
  CFG_WD_LOG_PATH = 9,                   // string
  CFG_CPU_AFFINITY_MASK = 10,            // integer
  CFG_CPU_CORES_NUMBER = 11,             // integer
  CFG_SET_LD_LIB_PATH = 12,              // boolean
  CFG_LOCAL_VERSION_PATH = 13,           // string
  CFG_PID_FILE_PATH = 14,                // string
  CFG_DELAY_TIME_INCREASE_SEC = 15,      // integer
  CFG_MAX_DELAY_PERIOD_SEC = 16,         // integer
  CFG_CONCURRENT_CLEANUP_SEC = 17,       // integer
  CFG_SLEEP_ON_CRITICAL_ERROR_SEC = 18,  // integer
  CFG_CRITICAL_ERROR_RETRIES = 19,       // integer
  CFG_NORMAL1_NUM_EVENTS = 20,           // integer
  CFG_NORMAL1_DURATION_SEC = 21,         // integer
  CFG_NORMAL1_RESULT = 22,               // integer
  CFG_NORMAL2_NUM_EVENTS = 23,           // integer
  CFG_NORMAL2_DURATION_SEC = 24,         // integer
  CFG_NORMAL2_RESULT = 25,               // integer
  CFG_NORMAL3_NUM_EVENTS = 26,           // integer
  CFG_NORMAL3_DURATION_SEC = 27,         // integer
  CFG_NORMAL3_RESULT = 28,               // integer
  CFG_SAFE1_NUM_EVENTS = 29,             // integer
  CFG_SAFE1_DURATION_SEC = 30,           // integer
  CFG_SAFE1_RESULT = 31,                 // integer
  CFG_SAFE2_NUM_EVENTS = 32,             // integer
  CFG_SAFE2_DURATION_SEC = 33,           // integer
  CFG_SAFE2_RESULT = 34,                 // integer
  CFG_SAFE3_NUM_EVENTS = 35,             // integer
  CFG_SAFE3_DURATION_SEC = 36,           // integer
  CFG_SAFE3_RESULT = 37,                 // integer
  CFG_PROC_MODULES_RETRIES = 38,         // integer
  CFG_NUM_OF_KEYS = 39,
};

enum ConfigValueType : uint32_t { CFG_TYPE_STRING = 0, CFG_TYPE_INT = 1, CFG_TYPE_BOOL = 2 };

namespace Config {

// Loads the file over the defaults. A missing file keeps every default and
// succeeds; reading stops at the first malformed line and still succeeds;
// an integer that does not parse fails.
bool Init(const char* path);
// Does nothing: values stay readable for the whole process.
void Teardown();

// "N/A" (logged) for a wrong key number or type.
const char* GetStrValue(uint32_t key);
// 0 (logged) for a wrong key number or type.
int32_t GetIntValue(uint32_t key);
// false (logged) for a wrong key number or type.
bool GetBoolValue(uint32_t key);
// nullptr (logged) from 39 on.
const char* GetName(uint32_t key);
// The type of key 3, a string (logged), from 39 on.
ConfigValueType GetType(uint32_t key);

void SetStrValue(uint32_t key, const char* value);
void SetIntValue(uint32_t key, int32_t value);
void SetBoolValue(uint32_t key, bool value);

// Puts every key back to its compiled-in default. The watchdog loads its
// configuration once and never calls this; it lets tests and the fuzz target
// start each case from a clean table.
void ResetToDefaults();

// A negative value of an integer key goes back to the key's default, with a
// WARN naming the key, the value and the default.
void ResetIfNegative(uint32_t key);

}  // namespace Config
