#include "ipc/IpcChannel.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/Clock.h"
#include "common/Log.h"
#include "common/StringUtils.h"
#include "ipc/UnixSocket.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_INFRA_IPC;

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

StatusCode IpcChannel::ReadRecord(int32_t fd, void* buffer, size_t size, bool strictRead,
                                  int flags) {
  // A zero-length read would leave the record queued, to be taken for the
  // next header; one scratch byte consumes it (the socket drops the rest).
  uint8_t scratch = 0;
  void* target = size != 0 ? buffer : &scratch;
  if (size != 0) std::memset(buffer, 0, size);
  const ssize_t got = recv(fd, target, size != 0 ? size : 1, flags);
  if (got < 1) {
    const int err = got == 0 ? 0 : errno;
    if ((flags & MSG_DONTWAIT) != 0 && (err == EAGAIN || err == EWOULDBLOCK)) {
      return StatusCode::TIMEOUT;
    }
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

StatusCode IpcChannel::ReadFailed(const char* reason, int err) {
  QWD_LOG_ERROR(kComponent, "Read failed on channel ID %s, errno %s(%d)\n", channelId_.data(),
                reason, err);
  return StatusCode::FAILURE;
}

StatusCode IpcChannel::WriteRecord(int32_t fd, const void* buffer, size_t size, int flags) {
  // MSG_NOSIGNAL: a peer that hung up is a failed write, not a SIGPIPE.
  const ssize_t written = send(fd, buffer, size, MSG_NOSIGNAL | flags);
  if (written < 0) {
    const int err = errno;
    if ((flags & MSG_DONTWAIT) != 0 && (err == EAGAIN || err == EWOULDBLOCK)) {
      return StatusCode::TIMEOUT;
    }
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

StatusCode IpcChannel::WriteMessage(int32_t fd, const IpcHeader& header, const void* data,
                                    int flags) {
  const StatusCode status = WriteRecord(fd, &header, sizeof(header), flags);
  if (status != StatusCode::SUCCESS || header.length == 0) return status;
  return WriteRecord(fd, data, header.length, flags);
}
