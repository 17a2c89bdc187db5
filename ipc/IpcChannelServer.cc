// The server half of IpcChannel: listening, accepting a trusted client and
// serving its requests.

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/Clock.h"
#include "common/Log.h"
#include "common/RootFiles.h"
#include "common/TimeUtils.h"
#include "ipc/IpcChannel.h"
#include "ipc/UnixSocket.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_INFRA_IPC;
constexpr int kListenBacklog = 2;
// How long the data record may lag behind its header. A client sends both at
// once; one that does not must not hold the serving thread.
constexpr int kDataRecordWaitMsec = 300;
// At most one warning of dropped replies per channel per watch cycle.
constexpr int64_t kDropWarnEveryMsec = 2000;

}  // namespace

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
  // Whatever sits at the path (a stale socket, a file, a directory, a link)
  // goes first, removed without following links: bind neither fails on it
  // nor creates the socket where a link points.
  if (!RemoveTree(channelId_.data())) {
    QWD_LOG_ERROR(kComponent, "Can't remove '%s' in the way of channel ID %s, errno %s\n",
                  channelId_.data(), channelId_.data(), std::strerror(errno));
  }
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
  // The serving thread is the whole watchdog: a client that reads none of its
  // replies must not block it in a send. Its reply is dropped instead.
  const StatusCode sent = WriteMessage(connectionFd_, reply, replyBuffer_.get(), MSG_DONTWAIT);
  if (sent != StatusCode::TIMEOUT) return sent;
  DropReply();
  return StatusCode::SUCCESS;
}

void IpcChannel::DropReply() {
  ++droppedReplies_;
  const int64_t now = GetCurrentTimeMsec();
  if (dropWarnedMsec_ >= 0 && now - dropWarnedMsec_ < kDropWarnEveryMsec) return;
  QWD_LOG_WARN(kComponent, "Dropped %u replies on channel ID %s: the client does not read them\n",
               droppedReplies_, channelId_.data());
  dropWarnedMsec_ = now;
  droppedReplies_ = 0;
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

StatusCode IpcChannel::ReadDataRecord(size_t size, bool strictRead) {
  // Clients send both records at once, so the data is nearly always queued
  // already: the wait (and its poll) is only for one that lags.
  const StatusCode queued =
      ReadRecord(connectionFd_, requestBuffer_.get(), size, strictRead, MSG_DONTWAIT);
  if (queued != StatusCode::TIMEOUT) return queued;
  pollfd entry{connectionFd_, POLLIN, 0};
  const int ready = PollMsec(&entry, 1, kDataRecordWaitMsec);
  if (ready < 1) {
    const int err = ready == 0 ? ETIMEDOUT : errno;
    return ReadFailed(std::strerror(err), err);
  }
  return ReadRecord(connectionFd_, requestBuffer_.get(), size, strictRead);
}
