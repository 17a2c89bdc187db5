#include "tests/ipc/IpcTestPeer.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>

#include "ipc/UnixSocket.h"

int g_handlerCalls = 0;

namespace {

StatusCode Handle(const void* data, size_t dataLen, void* reply, size_t replySize, size_t* replyLen,
                  void* command) {
  ++g_handlerCalls;
  const intptr_t id = reinterpret_cast<intptr_t>(command);
  if (id == kHugeReply || id == kBeyondBuffer) {
    *replyLen = id == kHugeReply ? 65537 : replySize + 100;
    return StatusCode::SUCCESS;
  }
  const char* const texts[] = {static_cast<const char*>(data), "abcde", "0123456789"};
  const char* text = id == kText ? texts[kEcho] : texts[id];
  *replyLen = id == kEcho ? std::min(dataLen, replySize) : strnlen(text, replySize);
  std::memcpy(reply, text, *replyLen);
  return id == kFailWithData ? StatusCode::FAILURE : StatusCode::SUCCESS;
}

}  // namespace

void RegisterTestHandlers(IpcChannel& server) {
  for (intptr_t id = kEcho; id <= kText; ++id) {
    server.RegisterHandler(static_cast<int32_t>(id), Handle, reinterpret_cast<void*>(id));
  }
}

pid_t StartServer(IpcChannel& server) {
  if (server.ServerInit() != StatusCode::SUCCESS) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    if (server.ServerAccept(5000) == StatusCode::SUCCESS) {
      while (server.ServerWaitAndProcess(5000) == StatusCode::SUCCESS) {
      }
    }
    _exit(0);
  }
  server.CloseServerSocket();
  return pid;
}

void KillServer(pid_t* pid) {
  if (*pid > 0) {
    kill(*pid, SIGKILL);
    waitpid(*pid, nullptr, 0);
  }
  *pid = -1;
}

int RawConnect(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  const sockaddr_un address = UnixSocket::MakeAddress(path.c_str());
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

bool SendRecord(int fd, const std::string& record) {
  return send(fd, record.data(), record.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(record.size());
}

std::string Header(uint32_t magic, uint32_t length, uint32_t commandId) {
  const IpcHeader header{magic, length, commandId};
  return std::string(reinterpret_cast<const char*>(&header), sizeof(header));
}

bool TakeReply(int fd, IpcHeader* header, std::string* data) {
  if (recv(fd, header, sizeof(*header), MSG_DONTWAIT) != sizeof(*header)) return false;
  data->assign(header->length, '\0');
  return header->length == 0 ||
         recv(fd, data->data(), data->size(), MSG_DONTWAIT) == static_cast<ssize_t>(data->size());
}
