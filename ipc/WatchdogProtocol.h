#pragma once

// The watchdog's wire protocol: what its supervised processes and the daemon
// exchange over the channels of IpcChannel. Both ends build on this header
// alone, so a layout changes here or nowhere.
//
// Every request and reply travels as IpcChannel's header plus one data
// record. Numbers are 32-bit in host byte order (both ends run on the same
// machine); texts are NUL-terminated. A request shorter than its layout reads
// as zeros past its end: the sender's fault, never the reader's overrun.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

// The daemon's sockets, one per role.
constexpr char kUserAgentSocketName[] = "/var/quillmorWatchdogUserAgent.socket";
constexpr char kSystemExecSocketName[] = "/var/quillmorWatchdogSystemExec.socket";

// Which of the sockets a process belongs to. The user agent's serves the
// normal and the safe-mode agent alike.
enum class WatchdogRole : uint32_t {
  USER_AGENT = 0,
  SYSTEM_EXEC = 1,
};

constexpr const char* SocketNameOf(WatchdogRole role) {
  return role == WatchdogRole::SYSTEM_EXEC ? kSystemExecSocketName : kUserAgentSocketName;
}

// Command ids on every process channel; 0 is the status notification, the
// others are served by the watchdog's command handlers.
enum class WatchdogCommand : int32_t {
  STATUS_NOTIFY = 0,            // StatusNotification; no reply data
  INCREASE_LOG_GENERATION = 1,  // no data; U32Reply: the previous generation
  SET_COMPONENT_LOG_LEVEL = 2,  // ComponentLogLevelRequest; no reply data
  OPERATIONAL_MODE = 3,         // OperationalModeRequest; no reply data
  RESTART_ALL = 4,              // RestartAllRequest; no reply data
  NEWEST_VERSION = 5,           // text request: the version's directory name
  SET_ACCOUNT_ID = 6,           // text request: the account id
  SET_MEMORY_LIMIT = 7,         // MemoryLimitRequest; no reply data
  GET_PID = 8,                  // no data; U32Reply: the watchdog's pid
  LOAD_KERNEL_MODULE = 9,       // no data; U32Reply: the module entity's status
};
constexpr uint32_t kNumWatchdogCommands = 10;

constexpr int32_t CommandId(WatchdogCommand command) { return static_cast<int32_t>(command); }

// Command 0, a process's heartbeat or failure report: 200 bytes.
struct StatusNotification {
  uint32_t ok;                      // non-zero: all is well; 0: failure
  int32_t pid;                      // the sender's pid
  std::array<char, 64> socketName;  // NUL-terminated path of the sender's socket
  std::array<char, 128> message;    // NUL-terminated failure text
};
static_assert(sizeof(StatusNotification) == 200);

// Command 2.
struct ComponentLogLevelRequest {
  uint32_t component;  // a LOGGER_COMPONENT_* number
  uint32_t level;      // 0 DEBUG .. 5 FATAL
};
static_assert(sizeof(ComponentLogLevelRequest) == 8);

// Command 3.
struct OperationalModeRequest {
  uint32_t mode;  // 0 normal, 1 safe
};
static_assert(sizeof(OperationalModeRequest) == 4);

// Command 4.
struct RestartAllRequest {
  uint32_t delayMsec;  // before everything is stopped
};
static_assert(sizeof(RestartAllRequest) == 4);

// Command 7: the limit, then one flag byte, unpadded.
struct __attribute__((packed)) MemoryLimitRequest {
  uint32_t limitBytes;       // least available memory; 0 switches the check off
  uint8_t triggersSafeMode;  // non-zero: low memory restarts into safe mode
};
static_assert(sizeof(MemoryLimitRequest) == 5);

// Commands 5 and 6 carry a NUL-terminated text; the watchdog reads at most
// this many bytes of it, terminator included.
constexpr size_t kMaxTextRequestSize = 256;

// Commands 1, 8 and 9 answer with one number.
struct U32Reply {
  uint32_t value;
};
static_assert(sizeof(U32Reply) == 4);

// The layout of a received record; bytes past a short record read as zeros.
template <typename Layout>
Layout DecodeRecord(const void* data, size_t dataLen) {
  static_assert(std::is_trivially_copyable_v<Layout>);
  Layout layout{};
  if (data != nullptr)
    std::memcpy(&layout, data, dataLen < sizeof(layout) ? dataLen : sizeof(layout));
  return layout;
}
