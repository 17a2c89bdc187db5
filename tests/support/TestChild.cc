// qwd_test_child: a monitored process for tests. It connects back to the
// watchdog's channel and behaves as its mode says:
//   qwd_test_child <mode> <socket> [arg]
//   connect          connect, then wait
//   heartbeat [N]    connect, one OK notification with pid N (default: its
//                    own), wait
//   foreign-socket S connect, one OK notification naming socket S, wait
//   fail TEXT        connect, one failure notification with TEXT, wait
//   garbage          connect, a notification of 200 bytes of noise, wait
//   command N        connect, command N without data, wait
//   args ...         connect, a failure notification whose text is
//                    "<argc> <last argument> <$QWD_CHILD_MARK or ->", wait
//   exit N           connect, then exit with status N
//   ignore-term      ignore SIGTERM, connect, wait
//   never-connect    wait
//   die              exit with status 1 at once
// Waiting ends with SIGTERM (exit status 0) or SIGKILL.

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "agent/src/infra/ipc/IpcChannel.h"
#include "common/StringUtils.h"
#include "watchdog/MonitoredProcess.h"

namespace {

[[noreturn]] void WaitForSignal() {
  for (;;) pause();
}

void ExitOnTerm(int) { _exit(0); }

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: qwd_test_child <mode> <socket> [arg]\n");
    return 2;
  }
  const std::string mode = argv[1];
  const char* socketName = argv[2];
  const char* arg = argc > 3 ? argv[3] : "";

  if (mode == "die") return 1;
  signal(SIGTERM, mode == "ignore-term" ? SIG_IGN : ExitOnTerm);
  if (mode == "never-connect") WaitForSignal();
  std::unique_ptr<IpcChannel> channel = CreateIpcChannel(socketName, 0, 16, false);
  if (!channel || channel->Connect(false) != StatusCode::SUCCESS) return 3;
  if (mode == "exit") return std::atoi(arg);

  int32_t command = kStatusNotifyCommand;
  StatusNotification note{};
  note.pid = static_cast<int32_t>(getpid());
  SafeStrCopy(note.socketName, socketName);
  if (mode == "heartbeat") {
    note.ok = 1;
    if (argc > 3) note.pid = std::atoi(arg);
  } else if (mode == "foreign-socket") {
    note.ok = 1;
    SafeStrCopy(note.socketName, arg);
  } else if (mode == "fail") {
    SafeStrCopy(note.message, arg);
  } else if (mode == "args") {
    const char* mark = std::getenv("QWD_CHILD_MARK");
    std::snprintf(note.message.data(), note.message.size(), "%d %s %s", argc, argv[argc - 1],
                  mark != nullptr ? mark : "-");
  } else if (mode == "garbage") {
    std::memset(&note, 0xA5, sizeof(note));
  } else if (mode == "command") {
    command = std::atoi(arg);
  } else {
    WaitForSignal();
  }
  uint32_t reply = 0;
  const size_t size = command == kStatusNotifyCommand ? sizeof(note) : 0;
  channel->SendCommand(command, size != 0 ? &note : nullptr, size, &reply, sizeof(reply), 10000);
  WaitForSignal();
}
