// Round trip of one command over an IPC channel against the floor: the same
// four records (12 + 200 bytes out, 12 + 4 back) with bare write/poll/read on
// a socket pair. Client and server are two processes in both cases.
//
//   build/plain/bench/ipc_bench --benchmark_repetitions=5
//       --benchmark_report_aggregates_only=true

#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>

#include <benchmark/benchmark.h>

#include "ipc/IpcChannel.h"

namespace {

constexpr size_t kRequestSize = 200;
constexpr size_t kReplySize = 4;
constexpr int32_t kTimeoutMsec = 5000;

StatusCode FourByteReply(const void*, size_t, void* reply, size_t, size_t* replyLen, void*) {
  std::memset(reply, 1, kReplySize);
  *replyLen = kReplySize;
  return StatusCode::SUCCESS;
}

void Reap(pid_t pid) {
  int status = 0;
  waitpid(pid, &status, 0);
}

void BM_IpcRoundTrip(benchmark::State& state) {
  char dir[] = "/tmp/qwd-bench-XXXXXX";
  if (mkdtemp(dir) == nullptr) {
    state.SkipWithError("mkdtemp failed");
    return;
  }
  const std::string path = std::string(dir) + "/ipc.socket";
  auto server = CreateIpcChannel(path.c_str(), kRequestSize, kReplySize, false);
  server->RegisterHandler(0, FourByteReply, nullptr);
  if (server->ServerInit() != StatusCode::SUCCESS) {
    state.SkipWithError("ServerInit failed");
    return;
  }
  const pid_t pid = fork();
  if (pid == 0) {
    if (server->ServerAccept(kTimeoutMsec) == StatusCode::SUCCESS) {
      while (server->ServerWaitAndProcess(kTimeoutMsec) == StatusCode::SUCCESS) {
      }
    }
    _exit(0);
  }
  server->CloseServerSocket();

  auto client = CreateIpcChannel(path.c_str(), 0, 0, false);
  client->Connect(false);
  std::array<char, kRequestSize> request{};
  std::array<char, kReplySize> reply{};
  for (auto _ : state) {
    if (client->SendCommand(0, request.data(), request.size(), reply.data(), reply.size(),
                            kTimeoutMsec) != StatusCode::SUCCESS) {
      state.SkipWithError("SendCommand failed");
      break;
    }
    benchmark::DoNotOptimize(reply);
  }
  client->Disconnect();
  Reap(pid);
  unlink(path.c_str());
  rmdir(dir);
}
BENCHMARK(BM_IpcRoundTrip);

bool ReadyToRead(int fd) {
  pollfd entry{fd, POLLIN, 0};
  return poll(&entry, 1, kTimeoutMsec) == 1 && entry.revents == POLLIN;
}

void BM_RawSeqpacketRoundTrip(benchmark::State& state) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) {
    state.SkipWithError("socketpair failed");
    return;
  }
  std::array<char, 12> header{};
  std::array<char, kRequestSize> request{};
  std::array<char, kReplySize> reply{};
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    while (ReadyToRead(fds[1]) && read(fds[1], header.data(), header.size()) > 0 &&
           read(fds[1], request.data(), request.size()) > 0) {
      if (write(fds[1], header.data(), header.size()) < 0 ||
          write(fds[1], reply.data(), reply.size()) < 0) {
        break;
      }
    }
    _exit(0);
  }
  close(fds[1]);
  for (auto _ : state) {
    if (write(fds[0], header.data(), header.size()) < 0 ||
        write(fds[0], request.data(), request.size()) < 0 || !ReadyToRead(fds[0]) ||
        read(fds[0], header.data(), header.size()) < 0 ||
        read(fds[0], reply.data(), reply.size()) < 0) {
      state.SkipWithError("round trip failed");
      break;
    }
    benchmark::DoNotOptimize(reply);
  }
  close(fds[0]);
  Reap(pid);
}
BENCHMARK(BM_RawSeqpacketRoundTrip);

}  // namespace

BENCHMARK_MAIN();
