#pragma once

// One end of a local command channel between two processes: an AF_UNIX
// SOCK_SEQPACKET socket whose path is the channel id. The server binds the
// path, accepts one client at a time and answers each request with the
// handler registered for its command id; the client connects (with retries),
// sends a command with optional data and waits for the reply. Strictly one
// request in flight per channel, and every request gets exactly one reply.
//
// Wire format: every message is a 12-byte IpcHeader record followed, only when
// its length is non-zero, by one data record of exactly that many bytes. The
// fields are 32-bit unsigned integers in host byte order (both ends run on the
// same machine, whatever its endianness). Request: magic, data length, command
// id. Reply: magic, reply data length (0..65535), StatusCode. The server
// checks the request magic; the client does not check the reply magic.
//
// All lines are logged under LOGGER_COMPONENT_INFRA_IPC. Every descriptor is
// close-on-exec, so children never inherit another child's channel.

#include <pthread.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "common/StatusCode.h"

constexpr uint32_t kIpcMagic = 0xDEADD00Du;
// Command ids run from 0 to kIpcMaxCommands - 1.
constexpr uint32_t kIpcMaxCommands = 10;
// The server never sends more reply data than this.
constexpr uint32_t kIpcMaxReplyLen = 65535u;

// Header record of requests and replies, host byte order.
struct IpcHeader {
  uint32_t magic;            // kIpcMagic
  uint32_t length;           // bytes in the data record that follows; 0: none
  uint32_t commandOrStatus;  // request: command id; reply: StatusCode
};
static_assert(sizeof(IpcHeader) == 12, "the header is 12 bytes on the wire");

// Server-side command handler. `data` points into the channel's request buffer
// (valid during the call only) and holds `dataLen` bytes; `reply` is the
// channel's reply buffer of `replySize` bytes. The handler must store the
// number of reply bytes it wrote through `replyLen` (0 for none). The returned
// status travels to the client as the reply status, and the reply data is sent
// whatever the status.
using IpcHandler = StatusCode (*)(const void* data, size_t dataLen, void* reply, size_t replySize,
                                  size_t* replyLen, void* context);

class IpcChannel {
 public:
  static constexpr size_t kChannelIdSize = 256;

  // Null when an allocation or the mutex set-up fails (logged).
  friend std::unique_ptr<IpcChannel> CreateIpcChannel(const char* channelId,
                                                      uint32_t maxRequestSize,
                                                      uint32_t replyBufferSize, bool threadSafe);
  // Closes both descriptors; the socket path is left in place.
  virtual ~IpcChannel();
  IpcChannel(const IpcChannel&) = delete;
  IpcChannel& operator=(const IpcChannel&) = delete;

  // Stores handler and context under commandId (0..9), replacing (with a
  // warning) any handler already there. INVALID_PARAM for ids from 10 on.
  virtual StatusCode RegisterHandler(int32_t commandId, IpcHandler handler, void* context);
  // Binds the channel id (its first 107 characters, mode 0600) and listens,
  // backlog 2.
  // A listening socket still open from an earlier call is closed first. An
  // existing file at the path is not removed: the owner removes a stale
  // socket first.
  virtual StatusCode ServerInit();
  // Waits for and accepts a client; the new connection replaces the current
  // one, which is not closed here. A peer that is neither root nor this
  // process's user is logged, closed and waited past. A time-out is a FAILURE.
  virtual StatusCode ServerAccept(int32_t timeoutMsec);
  // Waits for one request on the connection and processes it with strict
  // reads. A time-out is deliberately reported as FAILURE.
  virtual StatusCode ServerWaitAndProcess(int32_t timeoutMsec);
  // Reads one request from the connection, checks it, runs its handler and
  // writes the reply. With strictRead, a record shorter than asked fails; so
  // does a data record that is not there shortly after its header. The
  // handler of a request without data sees a zeroed request buffer.
  // Returns whether the reply went out, not the handler's status; without a
  // readable header nothing is replied.
  virtual StatusCode ProcessRequest(bool strictRead);
  // The accepted connection (-1 when none), for an outside poll.
  virtual int32_t GetDescriptor();
  // The socket path that names the channel in every log line.
  const char* GetChannelId() const { return channelId_.data(); }
  virtual void CloseConnection();
  virtual void CloseServerSocket();
  // Connects to the server, 10 attempts a second apart (through SleepSec).
  // With reconnect, a later transport failure in SendCommand reconnects.
  virtual StatusCode Connect(bool reconnect);
  virtual void Disconnect();
  // Sends a command and waits up to timeoutMsec for its reply. Transport
  // failures give FAILURE or TIMEOUT (and a reconnection when asked for);
  // otherwise the server's reply status. Reply data beyond replySize is
  // dropped with a warning; reply data without a buffer is a FAILURE.
  virtual StatusCode SendCommand(int32_t commandId, const void* data, size_t dataLen, void* reply,
                                 size_t replySize, int32_t timeoutMsec);

 private:
  IpcChannel() = default;
  StatusCode IpcChannelCtor(const char* channelId, uint32_t maxRequestSize,
                            uint32_t replyBufferSize, bool threadSafe);
  StatusCode PollOnChannel(int32_t fd, int32_t timeoutMsec);
  // Whether the peer of an accepted connection is root or this process's user.
  bool IsTrustedPeer(int32_t fd);
  // One record; with MSG_DONTWAIT in flags, an empty queue is TIMEOUT, unlogged.
  StatusCode ReadRecord(int32_t fd, void* buffer, size_t size, bool strictRead, int flags = 0);
  // The request's data record into the request buffer; a record that does
  // not follow its header within a short wait is a failed read.
  StatusCode ReadDataRecord(size_t size, bool strictRead);
  // Logs a failed read: FAILURE.
  StatusCode ReadFailed(const char* reason, int err);
  // One send with flags; with MSG_DONTWAIT, a full peer is TIMEOUT, unlogged.
  StatusCode WriteRecord(int32_t fd, const void* buffer, size_t size, int flags);
  // Header and, when there is data, the data record.
  StatusCode WriteMessage(int32_t fd, const IpcHeader& header, const void* data, int flags);
  // Counts a reply the client had no room for; one WARN per watch cycle at most.
  void DropReply();
  // Checks the request, reads its data and runs its handler: the reply status.
  StatusCode HandleRequest(const IpcHeader& request, bool strictRead, size_t* replyLen);
  StatusCode Exchange(int32_t commandId, const void* data, size_t dataLen, void* reply,
                      size_t replySize, int32_t timeoutMsec, StatusCode* replyStatus);
  // Connect without storing the flag and without the lock.
  StatusCode ConnectToServer();
  void Lock();
  void Unlock();

  std::array<char, kChannelIdSize> channelId_{};        // socket path, at most 255 characters
  std::array<IpcHandler, kIpcMaxCommands> handlers_{};  // by command id, null when none
  std::array<void*, kIpcMaxCommands> contexts_{};       // passed back to the handler
  int32_t socketFd_ = -1;                     // server: listening socket; client: connected socket
  int32_t connectionFd_ = -1;                 // server: the accepted client, -1 when none
  std::unique_ptr<uint8_t[]> requestBuffer_;  // request data, null for size 0
  uint32_t maxRequestSize_ = 0;               // bytes of requestBuffer_
  std::unique_ptr<uint8_t[]> replyBuffer_;    // handlers' reply data, null for size 0
  uint32_t replyBufferSize_ = 0;              // bytes of replyBuffer_
  uint32_t droppedReplies_ = 0;               // server: replies dropped since the last warning
  int64_t dropWarnedMsec_ = -1;               // server: when the last drop was warned of, -1: never
  bool reconnect_ = false;   // set by Connect: SendCommand reconnects after a transport failure
  bool threadSafe_ = false;  // mutex_ is made; client operations take it
  pthread_mutex_t mutex_{};  // recursive, for thread-safe channels
  pthread_mutexattr_t mutexAttr_{};  // its attributes
};

std::unique_ptr<IpcChannel> CreateIpcChannel(const char* channelId, uint32_t maxRequestSize,
                                             uint32_t replyBufferSize, bool threadSafe);
