// qwd_test_child: a monitored process for tests. It connects back to the
// watchdog's channel and behaves as its mode says:
//   qwd_test_child <mode> <socket> [arg]
//   connect          connect, then wait
//   heartbeat        connect, one OK notification with its own pid, wait
//   other-pid N      connect, one OK notification naming pid N, wait
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
  const char* mode = argv[1];
  const char* socketName = argv[2];
  const char* arg = argc > 3 ? argv[3] : "";
  auto is = [mode](const char* name) { return std::strcmp(mode, name) == 0; };

  if (is("die")) return 1;
  signal(SIGTERM, is("ignore-term") ? SIG_IGN : ExitOnTerm);
  if (is("never-connect")) WaitForSignal();

  std::unique_ptr<IpcChannel> channel = CreateIpcChannel(socketName, 0, 16, false);
  if (!channel || channel->Connect(false) != StatusCode::SUCCESS) return 3;
  if (is("exit")) return std::atoi(arg);

  int32_t command = kStatusNotifyCommand;
  StatusNotification note{};
  note.ok = 1;
  note.pid = static_cast<int32_t>(getpid());
  SafeStrCopy(note.socketName, socketName);
  if (is("other-pid")) {
    note.pid = std::atoi(arg);
  } else if (is("foreign-socket")) {
    SafeStrCopy(note.socketName, arg);
  } else if (is("fail")) {
    note.ok = 0;
    SafeStrCopy(note.message, arg);
  } else if (is("args")) {
    const char* mark = std::getenv("QWD_CHILD_MARK");
    note.ok = 0;
    std::snprintf(note.message.data(), note.message.size(), "%d %s %s", argc, argv[argc - 1],
                  mark != nullptr ? mark : "-");
  } else if (is("garbage")) {
    std::memset(&note, 0xA5, sizeof(note));
  } else if (is("command")) {
    command = std::atoi(arg);
  } else if (!is("heartbeat")) {
    WaitForSignal();
  }
  uint32_t reply = 0;
  const size_t size = command == kStatusNotifyCommand ? sizeof(note) : 0;
  channel->SendCommand(command, size != 0 ? &note : nullptr, size, &reply, sizeof(reply), 10000);
  WaitForSignal();
}
