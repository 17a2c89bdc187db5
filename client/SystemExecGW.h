#pragma once

// Client of the system-exec process, the agent's process that runs shell
// commands on behalf of the others. After Init in remote mode, commands and
// the logging controls travel over one thread-safe IpcChannel to that
// process; in local mode, or before Init, commands run here through the shell
// seam and the controls are no-ops that succeed. Process-wide state: one
// channel and one mode flag, written only by Init before other threads use the
// gateway. No retries: the channel's status is returned as it is. Lines are
// logged under LOGGER_COMPONENT_SYSTEM_EXEC.
//
// Commands on the channel (integers 32-bit, host order):
//   0 run a command: the text with its terminating zero; reply: system() rc
//   1 increase the log generation; reply: the previous generation
//   2 set a component's log level: kRecordSize bytes, component at 0, level at 4
//   3 set the account id: kRecordSize bytes, the id (at most 79 characters) first
//   4 get the system-exec process's pid; reply: the pid
// The fixed record length is part of the protocol: the server accepts
// requests of this size.

#include <cstddef>
#include <cstdint>

#include "common/Log.h"
#include "common/StatusCode.h"

namespace SystemExecGW {

constexpr const char* kSocketPath = "/var/quillmorSystem.socket";

enum Command : int32_t {
  kRunCommand = 0,
  kIncreaseLogGeneration = 1,
  kSetComponentLogLevel = 2,
  kSetAccountId = 3,
  kGetPid = 4,
};

constexpr size_t kRecordSize = 1028;
// The account id field at the start of its record, terminator included.
constexpr size_t kAccountIdSize = 80;
constexpr int32_t kControlTimeoutMsec = 2000;
constexpr int32_t kDefaultCommandTimeoutMsec = 10000;

// runLocally: local mode, SUCCESS. Otherwise connects a thread-safe channel
// without reconnection (up to 10 attempts a second apart); FAILURE when that
// fails, leaving the mode as it was.
StatusCode Init(bool runLocally);
// The previous generation through the out value (untouched in local mode).
StatusCode IncreaseLogGeneration(uint32_t* previousGeneration);
StatusCode SetComponentLogLevel(int32_t component, LoggerLevel level);
// Sends only the first 79 characters of a longer id.
StatusCode SetAccountId(const char* accountId);
// The system-exec process's pid; 0 in local mode.
StatusCode GetSystemExecPid(int32_t* pid);

}  // namespace SystemExecGW

namespace SystemExec {

// Runs a shell command, remotely when the gateway is in remote mode, and
// stores its raw system() return code in *rc (the exit status is in bits 8 to
// 15). The result is the channel's: a command that ran but exited non-zero
// still gives SUCCESS. Remote mode without a channel: NOT_SUPPORTED, *rc
// untouched. A null rc is a programming error that stops the process.
StatusCode SystemCustomTimeout(const char* command, int32_t* rc, int32_t timeoutMsec);
// SystemCustomTimeout with 10000 ms.
StatusCode System(const char* command, int32_t* rc);

}  // namespace SystemExec
