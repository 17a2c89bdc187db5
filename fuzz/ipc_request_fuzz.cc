// Feeds arbitrary record sequences to IpcChannel::ProcessRequest over a real
// SOCK_SEQPACKET connection with handlers registered, and checks that every
// reply is well formed: the server must answer or fail as the protocol says,
// never read or write out of bounds, never block, and
// keep serving the same connection. Requests are processed as the listener
// does: one for each time the connection polls readable.
//
// Input: one flags byte (bit 0: strict reads; bit 1: the client shuts its
// sending side after its records, otherwise the connection stays open as a
// live client's does), then records, each a 2-byte length (high byte first)
// and that many bytes, the last one cut by the end of the input. At most
// kMaxRecords records per input.

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "common/Clock.h"
#include "ipc/IpcChannel.h"
#include "tests/ipc/IpcTestPeer.h"

namespace {

constexpr uint32_t kMaxRequest = 200;
constexpr uint32_t kReplySize = 64;
constexpr size_t kMaxRecords = 64;

// Command 0 echoes; the others claim odd replies: 1 more than 65535 bytes
// (the low 16 bits are sent, within the buffer), 2 more than the reply
// buffer holds, 3 a full buffer with a failure, 4 nothing with any status.
// Every request byte is read, so that a short request buffer shows.
StatusCode Handle(const void* data, size_t dataLen, void* reply, size_t replySize, size_t* replyLen,
                  void* command) {
  uint32_t sum = 0;
  for (size_t i = 0; i < dataLen; ++i) sum += static_cast<const uint8_t*>(data)[i];
  switch (reinterpret_cast<intptr_t>(command)) {
    case 0:
      *replyLen = dataLen < replySize ? dataLen : replySize;
      if (*replyLen != 0) std::memcpy(reply, data, *replyLen);
      return StatusCode::SUCCESS;
    case 1:
      *replyLen = 65536u + sum % (replySize + 1);
      return StatusCode::SUCCESS;
    case 2:
      *replyLen = replySize + 1 + sum;
      return StatusCode::SUCCESS;
    case 3:
      std::memset(reply, static_cast<int>(sum), replySize);
      *replyLen = replySize;
      return StatusCode::FAILURE;
    default:
      *replyLen = 0;
      return static_cast<StatusCode>(sum % 24);
  }
}

// Polls never wait: a record that is not queued yet never will be, and the
// channel's short wait for a late data record would only slow the fuzzer.
class NoWaitClock final : public Clock {
 public:
  int GetTime(clockid_t clockId, timespec* out) override { return clock_gettime(clockId, out); }
  void SleepMsec(uint32_t) override {}
  int Poll(pollfd* fds, nfds_t count, int) override { return poll(fds, count, 0); }
};

const std::string g_path = "/tmp/qwd-fuzz-" + std::to_string(getpid()) + ".socket";

IpcChannel& Server() {
  static std::unique_ptr<IpcChannel> server;
  if (server) return *server;
  static NoWaitClock clock;
  InstallClock(&clock);
  server = CreateIpcChannel(g_path.c_str(), kMaxRequest, kReplySize, false);
  for (intptr_t id = 0; id < 5; ++id) {
    server->RegisterHandler(static_cast<int32_t>(id), Handle, reinterpret_cast<void*>(id));
  }
  unlink(g_path.c_str());
  if (server->ServerInit() != StatusCode::SUCCESS) std::abort();
  std::atexit([] { unlink(g_path.c_str()); });
  return *server;
}

bool Readable(int fd) {
  pollfd entry{fd, POLLIN, 0};
  return poll(&entry, 1, 0) == 1 && (entry.revents & POLLIN) != 0;
}

// Sends the input's records without blocking; the number sent.
size_t SendRecords(int fd, const uint8_t* data, size_t size) {
  size_t sent = 0;
  while (size >= 2 && sent < kMaxRecords) {
    size_t length = (static_cast<size_t>(data[0]) << 8) | data[1];
    data += 2;
    size -= 2;
    if (length > size) length = size;
    if (send(fd, data, length, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) break;
    data += length;
    size -= length;
    ++sent;
  }
  return sent;
}

// Every reply is a header with the magic and a length within the reply
// buffer, followed by exactly that much data.
void CheckReplies(int fd) {
  uint8_t record[65536];
  for (;;) {
    const ssize_t got = recv(fd, record, sizeof(record), MSG_DONTWAIT);
    if (got < 0) return;
    IpcHeader header{};
    if (got != sizeof(header)) __builtin_trap();
    std::memcpy(&header, record, sizeof(header));
    if (header.magic != kIpcMagic || header.length > kReplySize) __builtin_trap();
    if (header.length == 0) continue;
    if (recv(fd, record, sizeof(record), MSG_DONTWAIT) != static_cast<ssize_t>(header.length)) {
      __builtin_trap();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  IpcChannel& server = Server();
  const bool strictRead = (data[0] & 1) != 0;
  const int client = RawConnect(g_path);
  if (client < 0) std::abort();
  if (server.ServerAccept(1000) != StatusCode::SUCCESS) std::abort();

  const size_t records = SendRecords(client, data + 1, size - 1);
  if ((data[0] & 2) != 0) shutdown(client, SHUT_WR);
  // Each call consumes at least one record or fails (a shut side stays
  // readable for ever).
  for (size_t i = 0; i <= records && Readable(server.GetDescriptor()); ++i) {
    const auto start = std::chrono::steady_clock::now();
    server.ProcessRequest(strictRead);
    // Nothing in it waits on this clock: a slow request was a blocking read,
    // cut short only by libFuzzer's own SIGALRM (a real server hangs there).
    if (std::chrono::steady_clock::now() - start > std::chrono::seconds(1)) __builtin_trap();
  }
  CheckReplies(client);

  close(client);
  server.CloseConnection();
  return 0;
}
