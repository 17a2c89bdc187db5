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
//   ignore-term      ignore SIGTERM, connect, one OK notification, wait
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

constexpr int32_t kReplyTimeoutMsec = 10000;

[[noreturn]] void WaitForSignal() {
  for (;;) pause();
}

void ExitOnTerm(int) { _exit(0); }

StatusNotification Notification(uint32_t ok, int32_t pid, const char* socketName) {
  StatusNotification note{};
  note.ok = ok;
  note.pid = pid;
  SafeStrCopy(note.socketName, socketName);
  return note;
}

void Send(IpcChannel& channel, int32_t command, const void* data, size_t size) {
  uint32_t reply = 0;
  channel.SendCommand(command, data, size, &reply, sizeof(reply), kReplyTimeoutMsec);
}

void SendNotification(IpcChannel& channel, const StatusNotification& note) {
  Send(channel, kStatusNotifyCommand, &note, sizeof(note));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: qwd_test_child <mode> <socket> [arg]\n");
    return 2;
  }
  const char* mode = argv[1];
  const char* socketName = argv[2];
  const char* arg = argc > 3 ? argv[3] : "";

  if (std::strcmp(mode, "die") == 0) return 1;
  signal(SIGTERM, std::strcmp(mode, "ignore-term") == 0 ? SIG_IGN : ExitOnTerm);
  if (std::strcmp(mode, "never-connect") == 0) WaitForSignal();

  std::unique_ptr<IpcChannel> channel = CreateIpcChannel(socketName, 0, 16, false);
  if (!channel || channel->Connect(false) != StatusCode::SUCCESS) return 3;

  const int32_t ownPid = static_cast<int32_t>(getpid());
  if (std::strcmp(mode, "heartbeat") == 0 || std::strcmp(mode, "ignore-term") == 0) {
    SendNotification(*channel, Notification(1, ownPid, socketName));
  } else if (std::strcmp(mode, "other-pid") == 0) {
    SendNotification(*channel, Notification(1, std::atoi(arg), socketName));
  } else if (std::strcmp(mode, "foreign-socket") == 0) {
    SendNotification(*channel, Notification(1, ownPid, arg));
  } else if (std::strcmp(mode, "fail") == 0) {
    StatusNotification note = Notification(0, ownPid, socketName);
    SafeStrCopy(note.message, arg);
    SendNotification(*channel, note);
  } else if (std::strcmp(mode, "garbage") == 0) {
    char noise[sizeof(StatusNotification)];
    std::memset(noise, 0xA5, sizeof(noise));
    Send(*channel, kStatusNotifyCommand, noise, sizeof(noise));
  } else if (std::strcmp(mode, "command") == 0) {
    Send(*channel, std::atoi(arg), nullptr, 0);
  } else if (std::strcmp(mode, "args") == 0) {
    const char* mark = std::getenv("QWD_CHILD_MARK");
    StatusNotification note = Notification(0, ownPid, socketName);
    std::snprintf(note.message.data(), note.message.size(), "%d %s %s", argc, argv[argc - 1],
                  mark != nullptr ? mark : "-");
    SendNotification(*channel, note);
  } else if (std::strcmp(mode, "exit") == 0) {
    return std::atoi(arg);
  }
  WaitForSignal();
}
