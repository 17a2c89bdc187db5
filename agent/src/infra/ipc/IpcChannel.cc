#include "agent/src/infra/ipc/IpcChannel.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "agent/src/infra/ipc/UnixSocket.h"
#include "common/Clock.h"
#include "common/Log.h"
#include "common/StringUtils.h"
#include "common/TimeUtils.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_INFRA_IPC;
constexpr int kListenBacklog = 2;
// How long the data record may lag behind its header. A client sends both at
// once; one that does not must not hold the serving thread.
constexpr int kDataRecordWaitMsec = 300;

}  // namespace

std::unique_ptr<IpcChannel> CreateIpcChannel(const char* channelId, uint32_t maxRequestSize,
                                             uint32_t replyBufferSize, bool threadSafe) {
  if (!QWD_ASSERT(kComponent, channelId != nullptr, "channelId != NULL")) return nullptr;
  std::unique_ptr<IpcChannel> channel(new (std::nothrow) IpcChannel());
  if (!channel) {
    QWD_LOG_ERROR(kComponent, "Can't allocate memory for IPC channel on channel ID %s struct\n",
                  channelId);
    return nullptr;
  }
  if (channel->IpcChannelCtor(channelId, maxRequestSize, replyBufferSize, threadSafe) !=
      StatusCode::SUCCESS) {
    return nullptr;
  }
  return channel;
}

StatusCode IpcChannel::IpcChannelCtor(const char* channelId, uint32_t maxRequestSize,
                                      uint32_t replyBufferSize, bool threadSafe) {
  SafeStrCopy(channelId_, channelId);
  maxRequestSize_ = maxRequestSize;
  replyBufferSize_ = replyBufferSize;
  if (threadSafe) {
    int rc = pthread_mutexattr_init(&mutexAttr_);
    if (rc != 0) {
      QWD_LOG_ERROR(kComponent, "Failed initializing mutex attribs, got %d\n", rc);
      return StatusCode::FAILURE;
    }
    rc = pthread_mutexattr_settype(&mutexAttr_, PTHREAD_MUTEX_RECURSIVE);
    if (rc != 0) {
      QWD_LOG_ERROR(kComponent, "Failed setting mutex attribs, got %d\n", rc);
      pthread_mutexattr_destroy(&mutexAttr_);
      return StatusCode::FAILURE;
    }
    rc = pthread_mutex_init(&mutex_, &mutexAttr_);
    if (rc != 0) {
      QWD_LOG_ERROR(kComponent, "Failed initializing mutex for channel ID %s, got %d\n",
                    channelId_.data(), rc);
      pthread_mutexattr_destroy(&mutexAttr_);
      return StatusCode::FAILURE;
    }
    // Set only now, so that the destructor never destroys a mutex that was not made.
    threadSafe_ = true;
  }
  if (maxRequestSize_ != 0) {
    requestBuffer_.reset(new (std::nothrow) uint8_t[maxRequestSize_]());
    if (!requestBuffer_) {
      QWD_LOG_ERROR(kComponent,
                    "Can't allocate memory (%zu bytes) for command data buffer for channel ID %s\n",
                    static_cast<size_t>(maxRequestSize_), channelId_.data());
      return StatusCode::OUT_OF_MEMORY;
    }
  }
  if (replyBufferSize_ != 0) {
    replyBuffer_.reset(new (std::nothrow) uint8_t[replyBufferSize_]());
    if (!replyBuffer_) {
      QWD_LOG_ERROR(
          kComponent,
          "Can't allocate memory (%zu bytes) for command reply buffer for channel ID %s\n",
          static_cast<size_t>(replyBufferSize_), channelId_.data());
      return StatusCode::OUT_OF_MEMORY;
    }
  }
  return StatusCode::SUCCESS;
}

IpcChannel::~IpcChannel() {
  UnixSocket::Close(&connectionFd_);
  UnixSocket::Close(&socketFd_);
  if (threadSafe_) {
    pthread_mutex_destroy(&mutex_);
    pthread_mutexattr_destroy(&mutexAttr_);
  }
}

void IpcChannel::Lock() {
  if (!threadSafe_) return;
  const int rc = pthread_mutex_lock(&mutex_);
  if (rc != 0) {
    QWD_LOG_FATAL(kComponent, "Failed locking channel ID %s mutex, got %d\n", channelId_.data(),
                  rc);
    std::abort();
  }
}

void IpcChannel::Unlock() {
  if (!threadSafe_) return;
  const int rc = pthread_mutex_unlock(&mutex_);
  if (rc != 0) {
    QWD_LOG_FATAL(kComponent, "Failed unlocking channel ID %s mutex, got %d\n", channelId_.data(),
                  rc);
    std::abort();
  }
}

StatusCode IpcChannel::RegisterHandler(int32_t commandId, IpcHandler handler, void* context) {
  // Negative ids are refused too: they would index before the table.
  if (static_cast<uint32_t>(commandId) >= kIpcMaxCommands) {
    QWD_LOG_ERROR(kComponent,
                  "Trying to register server handler ID %d (max allowed %d) to IPC channel ID %s\n",
                  commandId, static_cast<int>(kIpcMaxCommands) - 1, channelId_.data());
    return StatusCode::INVALID_PARAM;
  }
  if (handlers_[commandId] != nullptr) {
    QWD_LOG_WARN(kComponent, "Replacing current registered handler for ID %d, channel ID %s\n",
                 commandId, channelId_.data());
  }
  handlers_[commandId] = handler;
  contexts_[commandId] = context;
  QWD_LOG_VERBOSE(kComponent, "handler for ID %d on channel ID %s registered\n", commandId,
                  channelId_.data());
  return StatusCode::SUCCESS;
}

StatusCode IpcChannel::PollOnChannel(int32_t fd, int32_t timeoutMsec) {
  if (fd == -1) {
    QWD_LOG_ERROR(kComponent, "PollOnChannel called when socket is -1\n");
    return StatusCode::FAILURE;
  }
  pollfd entry{fd, POLLIN, 0};
  const int ready = PollMsec(&entry, 1, timeoutMsec);
  if (ready < 0) {
    const int err = errno;
    QWD_LOG_ERROR(kComponent, "Failed polling on socket %d, channel ID %s, errno %s(%d)\n", fd,
                  channelId_.data(), std::strerror(err), err);
    return StatusCode::FAILURE;
  }
  if (ready == 0) {
    QWD_LOG_VERBOSE(kComponent,
                    "Timed-out waiting %d milliseconds for new message on channel ID %s\n",
                    timeoutMsec, channelId_.data());
    return StatusCode::TIMEOUT;
  }
  // A hang-up or error bit fails the poll even when data is waiting too.
  if (entry.revents != POLLIN) {
    QWD_LOG_ERROR(kComponent,
                  "Polled on channel ID %s for POLLIN, got %d, probably a disconnection\n",
                  channelId_.data(), entry.revents);
    return StatusCode::FAILURE;
  }
  return StatusCode::SUCCESS;
}

StatusCode IpcChannel::ReadRecord(int32_t fd, void* buffer, size_t size, bool strictRead) {
  // A zero-length read would leave the record queued, to be taken for the
  // next header; one scratch byte consumes it (the socket drops the rest).
  uint8_t scratch = 0;
  void* target = size != 0 ? buffer : &scratch;
  if (size != 0) std::memset(buffer, 0, size);
  const ssize_t got = read(fd, target, size != 0 ? size : 1);
  if (got < 1) {
    const int err = got == 0 ? 0 : errno;
    return ReadFailed(got == 0 ? "end of stream" : std::strerror(err), err);
  }
  if (strictRead && static_cast<size_t>(got) < size) {
    QWD_LOG_ERROR(kComponent,
                  "Read only %d bytes trying to read header of size %zu on channel ID %s\n",
                  static_cast<int>(got), size, channelId_.data());
    return StatusCode::FAILURE;
  }
  return StatusCode::SUCCESS;
}

StatusCode IpcChannel::ReadDataRecord(size_t size, bool strictRead) {
  pollfd entry{connectionFd_, POLLIN, 0};
  const int ready = PollMsec(&entry, 1, kDataRecordWaitMsec);
  if (ready < 1) {
    const int err = ready == 0 ? ETIMEDOUT : errno;
    return ReadFailed(std::strerror(err), err);
  }
  return ReadRecord(connectionFd_, requestBuffer_.get(), size, strictRead);
}

StatusCode IpcChannel::ReadFailed(const char* reason, int err) {
  QWD_LOG_ERROR(kComponent, "Read failed on channel ID %s, errno %s(%d)\n", channelId_.data(),
                reason, err);
  return StatusCode::FAILURE;
}

StatusCode IpcChannel::WriteRecord(int32_t fd, const void* buffer, size_t size) {
  // MSG_NOSIGNAL: a peer that hung up is a failed write, not a SIGPIPE.
  const ssize_t written = send(fd, buffer, size, MSG_NOSIGNAL);
  if (written < 0) {
    const int err = errno;
    QWD_LOG_ERROR(kComponent, "Failed writing to channel ID %s, errno %s(%d)\n", channelId_.data(),
                  std::strerror(err), err);
    return StatusCode::FAILURE;
  }
  if (static_cast<size_t>(written) != size) {
    QWD_LOG_ERROR(kComponent, "wrote only %d bytes of %zu reply header bytes on channel ID %s\n",
                  static_cast<int>(written), size, channelId_.data());
    return StatusCode::FAILURE;
  }
  return StatusCode::SUCCESS;
}

StatusCode IpcChannel::WriteMessage(int32_t fd, const IpcHeader& header, const void* data) {
  const StatusCode status = WriteRecord(fd, &header, sizeof(header));
  if (status != StatusCode::SUCCESS || header.length == 0) return status;
  return WriteRecord(fd, data, header.length);
}

StatusCode IpcChannel::ServerInit() {
  // A second start without a stop in between must not leak the listening
  // socket of the first one: the new socket replaces it.
  if (socketFd_ >= 0) {
    QWD_LOG_WARN(kComponent, "Server socket of channel ID %s was still open, closing it first\n",
                 channelId_.data());
    UnixSocket::Close(&socketFd_);
  }
  const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    QWD_LOG_ERROR(kComponent, "Failed creating socket for channel ID %s, errno %s\n",
                  channelId_.data(), std::strerror(errno));
    return StatusCode::FAILURE;
  }
  socketFd_ = fd;
  const sockaddr_un address = UnixSocket::MakeAddress(channelId_.data());
  // The socket is born 0600: only its owner and root may even connect.
  const mode_t previousMask = umask(0177);
  const int bound = bind(socketFd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  umask(previousMask);
  if (bound != 0) {
    QWD_LOG_ERROR(kComponent, "Failed binding for channel ID %s, errno %s\n", channelId_.data(),
                  std::strerror(errno));
    UnixSocket::Close(&socketFd_);
    return StatusCode::FAILURE;
  }
  if (listen(socketFd_, kListenBacklog) != 0) {
    QWD_LOG_ERROR(kComponent, "listen failed for channel ID %s, errno %s\n", channelId_.data(),
                  std::strerror(errno));
    UnixSocket::Close(&socketFd_);
    return StatusCode::FAILURE;
  }
  return StatusCode::SUCCESS;
}

StatusCode IpcChannel::ServerAccept(int32_t timeoutMsec) {
  const int64_t deadline = GetCurrentTimeMsec() + timeoutMsec;
  for (;;) {
    const int64_t left = deadline - GetCurrentTimeMsec();
    const StatusCode status = PollOnChannel(socketFd_, left > 0 ? static_cast<int32_t>(left) : 0);
    if (status == StatusCode::TIMEOUT) {
      QWD_LOG_ERROR(kComponent,
                    "Server failed waiting for new connection on channel ID %s, timeout.\n",
                    channelId_.data());
      return StatusCode::FAILURE;
    }
    if (status != StatusCode::SUCCESS) {
      QWD_LOG_ERROR(kComponent,
                    "Server failed waiting for new connection on channel ID %s, errno %s\n",
                    channelId_.data(), std::strerror(errno));
      return StatusCode::FAILURE;
    }
    const int fd = accept4(socketFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      QWD_LOG_ERROR(kComponent,
                    "Server failed accepting a new connection on channel ID %s, errno %s\n",
                    channelId_.data(), std::strerror(errno));
      return StatusCode::FAILURE;
    }
    if (IsTrustedPeer(fd)) {
      connectionFd_ = fd;
      return StatusCode::SUCCESS;
    }
    close(fd);
  }
}

// Commands steer a root process: only root and this process's own user may
// send them. Anyone else is turned away before a byte is read.
bool IpcChannel::IsTrustedPeer(int32_t fd) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    QWD_LOG_ERROR(kComponent,
                  "Refused a connection on channel ID %s: no peer credentials, errno %s\n",
                  channelId_.data(), std::strerror(errno));
    return false;
  }
  if (peer.uid == 0 || peer.uid == geteuid()) return true;
  QWD_LOG_ERROR(kComponent,
                "Refused a connection on channel ID %s from pid %d uid %d: neither root nor the "
                "owner\n",
                channelId_.data(), static_cast<int>(peer.pid), static_cast<int>(peer.uid));
  return false;
}

StatusCode IpcChannel::ServerWaitAndProcess(int32_t timeoutMsec) {
  if (connectionFd_ < 0) {
    QWD_LOG_ERROR(kComponent, "Client did not connect yet on channel ID %s!\n", channelId_.data());
    return StatusCode::FAILURE;
  }
  const StatusCode status = PollOnChannel(connectionFd_, timeoutMsec);
  if (status == StatusCode::TIMEOUT) {
    QWD_LOG_ERROR(kComponent, "Server got timeout while waiting for new message on channel ID %s\n",
                  channelId_.data());
    return StatusCode::FAILURE;
  }
  if (status != StatusCode::SUCCESS) {
    QWD_LOG_ERROR(kComponent, "Server failed waiting for new message on channel ID %s, errno %s\n",
                  channelId_.data(), std::strerror(errno));
    return StatusCode::FAILURE;
  }
  if (ProcessRequest(true) != StatusCode::SUCCESS) {
    QWD_LOG_ERROR(kComponent, "Failed processing a client request on channel %s\n",
                  channelId_.data());
    return StatusCode::FAILURE;
  }
  return StatusCode::SUCCESS;
}

StatusCode IpcChannel::ProcessRequest(bool strictRead) {
  IpcHeader reply{kIpcMagic, 0, static_cast<uint32_t>(StatusCode::SUCCESS)};
  if (connectionFd_ < 0) {
    QWD_LOG_ERROR(kComponent, "Client did not connect yet on channel ID %s!\n", channelId_.data());
    return StatusCode::FAILURE;
  }
  IpcHeader request{};
  const StatusCode readStatus = ReadRecord(connectionFd_, &request, sizeof(request), strictRead);
  if (readStatus != StatusCode::SUCCESS) return readStatus;

  size_t replyLen = 0;
  const StatusCode status = HandleRequest(request, strictRead, &replyLen);
  reply.length = static_cast<uint32_t>(replyLen);
  reply.commandOrStatus = static_cast<uint32_t>(status);
  QWD_LOG_DEBUG(kComponent, "Replying to cmd %d with status %s(%d), reply data len %zu\n",
                static_cast<int>(request.commandOrStatus), StatusCodeToStr(status),
                StatusCodeToInt(status), replyLen);
  return WriteMessage(connectionFd_, reply, replyBuffer_.get());
}

StatusCode IpcChannel::HandleRequest(const IpcHeader& request, bool strictRead, size_t* replyLen) {
  if (request.magic != kIpcMagic) {
    QWD_LOG_ERROR(kComponent, "Got invalid magic 0x%x instead of dead dude on channel ID %s\n",
                  request.magic, channelId_.data());
    return StatusCode::FAILURE;
  }
  const uint32_t commandId = request.commandOrStatus;
  if (commandId >= kIpcMaxCommands) {
    QWD_LOG_ERROR(kComponent, "Got command %u, max allowed %u on channel ID %s\n", commandId,
                  kIpcMaxCommands, channelId_.data());
    return StatusCode::INVALID_PARAM;
  }
  if (request.length == 0) {
    // A handler taking a string must not find the previous request's text.
    if (requestBuffer_) std::memset(requestBuffer_.get(), 0, maxRequestSize_);
  } else {
    // The size check deliberately comes after the read, so that an oversized
    // record is consumed (the socket discards its rest) before it is refused.
    const size_t toRead = std::min(request.length, maxRequestSize_);
    const StatusCode status = ReadDataRecord(toRead, strictRead);
    if (status != StatusCode::SUCCESS) return status;
    if (request.length > maxRequestSize_) {
      QWD_LOG_ERROR(kComponent, "Got size %zu, larger than max %zu for channel ID %s\n",
                    static_cast<size_t>(request.length), static_cast<size_t>(maxRequestSize_),
                    channelId_.data());
      return StatusCode::INVALID_PARAM;
    }
  }
  if (handlers_[commandId] == nullptr) {
    QWD_LOG_WARN(kComponent, "Got un-registered command %u for channel ID %s\n", commandId,
                 channelId_.data());
    return StatusCode::INVALID_PARAM;
  }
  StatusCode status = handlers_[commandId](requestBuffer_.get(), request.length, replyBuffer_.get(),
                                           replyBufferSize_, replyLen, contexts_[commandId]);
  if (*replyLen > kIpcMaxReplyLen) {
    QWD_LOG_WARN(kComponent, "Got reply data len %zu > UINT16_MAX (%u), truncating\n", *replyLen,
                 kIpcMaxReplyLen);
    // The low 16 bits, not 65535: receivers rely on this exact truncation.
    *replyLen &= kIpcMaxReplyLen;
    status = StatusCode::INVALID_PARAM;
  }
  if (*replyLen > replyBufferSize_) {
    // Never send bytes from beyond the reply buffer, whatever the handler claims.
    QWD_LOG_ERROR(
        kComponent,
        "Handler for command ID %u on channel ID %s claims %zu reply bytes, buffer has %zu\n",
        commandId, channelId_.data(), *replyLen, static_cast<size_t>(replyBufferSize_));
    *replyLen = replyBufferSize_;
    status = StatusCode::INVALID_PARAM;
  }
  if (status != StatusCode::SUCCESS) {
    QWD_LOG_WARN(kComponent, "Handler for command ID %u on channel ID %s returned %s(%d)\n",
                 commandId, channelId_.data(), StatusCodeToStr(status), StatusCodeToInt(status));
  }
  return status;
}

int32_t IpcChannel::GetDescriptor() { return connectionFd_; }

void IpcChannel::CloseConnection() { UnixSocket::Close(&connectionFd_); }

void IpcChannel::CloseServerSocket() { UnixSocket::Close(&socketFd_); }
