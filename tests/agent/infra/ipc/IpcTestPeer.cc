#include "tests/agent/infra/ipc/IpcTestPeer.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

pid_t ForkChild(const std::function<int()>& body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  return pid;
}

int WaitChild(pid_t pid) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

pid_t StartServer(IpcChannel& server) {
  if (server.ServerInit() != StatusCode::SUCCESS) return -1;
  const pid_t pid = ForkChild([&server] {
    if (server.ServerAccept(5000) != StatusCode::SUCCESS) return 255;
    int served = 0;
    while (server.ServerWaitAndProcess(5000) == StatusCode::SUCCESS) served += served < 254;
    return served;
  });
  server.CloseServerSocket();
  return pid;
}

void KillServer(pid_t pid) {
  kill(pid, SIGKILL);
  WaitChild(pid);
}

int RawConnect(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

bool SendRecord(int fd, const void* data, size_t size) {
  return send(fd, data, size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
}

bool SendHeader(int fd, uint32_t magic, uint32_t length, uint32_t commandId) {
  const IpcHeader header{magic, length, commandId};
  return SendRecord(fd, &header, sizeof(header));
}

bool ReadReply(int fd, IpcHeader* header, std::string* data, int timeoutMsec) {
  pollfd entry{fd, POLLIN, 0};
  if (poll(&entry, 1, timeoutMsec) != 1 || (entry.revents & POLLIN) == 0) return false;
  if (read(fd, header, sizeof(*header)) != sizeof(*header)) return false;
  data->assign(header->length, '\0');
  if (header->length == 0) return true;
  return read(fd, data->data(), data->size()) == static_cast<ssize_t>(data->size());
}
