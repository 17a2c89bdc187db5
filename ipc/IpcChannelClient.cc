// The client half of IpcChannel: connecting, sending commands, reconnecting.

#include <cerrno>
#include <cstring>

#include "common/Clock.h"
#include "common/Log.h"
#include "ipc/IpcChannel.h"
#include "ipc/UnixSocket.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_INFRA_IPC;
constexpr int kConnectAttempts = 10;

}  // namespace

StatusCode IpcChannel::Connect(bool reconnect) {
  Lock();
  reconnect_ = reconnect;
  const StatusCode status = ConnectToServer();
  Unlock();
  return status;
}

StatusCode IpcChannel::ConnectToServer() {
  if (socketFd_ >= 0) {
    QWD_LOG_ERROR(kComponent, "Socket for channel ID %s already exists? call disconnect first\n",
                  channelId_.data());
    return StatusCode::FAILURE;
  }
  int32_t fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    QWD_LOG_ERROR(kComponent, "Failed creating socket for channel ID %s client size, errno %s\n",
                  channelId_.data(), std::strerror(errno));
    return StatusCode::FAILURE;
  }
  const sockaddr_un address = UnixSocket::MakeAddress(channelId_.data());
  int err = 0;
  for (int attempt = 0; attempt < kConnectAttempts; ++attempt) {
    QWD_LOG_VERBOSE(kComponent, "Trying to connect to client channel ID %s\n", channelId_.data());
    if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
      socketFd_ = fd;
      QWD_LOG_VERBOSE(kComponent,
                      "Channel ID %s client-side initialized and connected successfully\n",
                      channelId_.data());
      return StatusCode::SUCCESS;
    }
    err = errno;
    QWD_LOG_ERROR(kComponent,
                  "Failed connecting to server on channel ID %s, attempt %d, errno %s(%d)\n",
                  channelId_.data(), attempt, std::strerror(err), err);
    // Every failure sleeps, the last one too: a server that never comes costs 10 s.
    SleepSec(1);
  }
  QWD_LOG_ERROR(kComponent, "Failed connecting client channel ID %s, errno %s\n", channelId_.data(),
                std::strerror(err));
  UnixSocket::Close(&fd);
  return StatusCode::FAILURE;
}

void IpcChannel::Disconnect() {
  Lock();
  UnixSocket::Close(&socketFd_);
  Unlock();
}

StatusCode IpcChannel::SendCommand(int32_t commandId, const void* data, size_t dataLen, void* reply,
                                   size_t replySize, int32_t timeoutMsec) {
  Lock();
  StatusCode replyStatus = StatusCode::SUCCESS;
  const StatusCode transport =
      Exchange(commandId, data, dataLen, reply, replySize, timeoutMsec, &replyStatus);
  Unlock();

  if (transport != StatusCode::SUCCESS) {
    if (reconnect_) {
      // The reconnection runs outside the lock; the command is not sent again.
      QWD_LOG_WARN(
          kComponent,
          "Failed sending command type %d on channel ID %s, status %s, trying to reconnect\n",
          commandId, channelId_.data(), StatusCodeToStr(transport));
      QWD_LOG_DEBUG(kComponent, "but first, disconnecting\n");
      UnixSocket::Close(&socketFd_);
      QWD_LOG_DEBUG(kComponent, "Now, connecting\n");
      if (ConnectToServer() != StatusCode::SUCCESS) {
        QWD_LOG_ERROR(kComponent, "Failed reconnecting channel ID %s\n", channelId_.data());
      } else {
        QWD_LOG_DEBUG(kComponent, "reconnection done successfully!\n");
      }
    }
    return transport;
  }
  if (replyStatus != StatusCode::SUCCESS) {
    // The status word printed is the transport's, which is always "SUCCESS"
    // here; the log readers know this line by that text, so it stays.
    QWD_LOG_ERROR(kComponent, "Failed sending command type %d on channel ID %s, status %s\n",
                  commandId, channelId_.data(), StatusCodeToStr(transport));
    return replyStatus;
  }
  return StatusCode::SUCCESS;
}

StatusCode IpcChannel::Exchange(int32_t commandId, const void* data, size_t dataLen, void* reply,
                                size_t replySize, int32_t timeoutMsec, StatusCode* replyStatus) {
  if (socketFd_ < 0) {
    QWD_LOG_ERROR(kComponent,
                  "Client on channel ID %s is disconnected! Can't send command type %d\n",
                  channelId_.data(), commandId);
    return StatusCode::FAILURE;
  }
  if (!QWD_ASSERT(kComponent, data != nullptr || dataLen == 0, "data != NULL || dataLen == 0") ||
      !QWD_ASSERT(kComponent, static_cast<uint64_t>(dataLen) <= UINT32_MAX,
                  "dataLen <= UINT32_MAX")) {
    return StatusCode::FAILURE;
  }
  QWD_LOG_DEBUG(kComponent, "Going to send command type %d on channel ID %s\n", commandId,
                channelId_.data());
  const IpcHeader request{kIpcMagic, static_cast<uint32_t>(dataLen),
                          static_cast<uint32_t>(commandId)};
  if (dataLen != 0) QWD_LOG_DEBUG(kComponent, "Writing %zu bytes of command data\n", dataLen);
  StatusCode status = WriteMessage(socketFd_, request, data, 0);
  if (status != StatusCode::SUCCESS) return status;

  status = PollOnChannel(socketFd_, timeoutMsec);
  if (status != StatusCode::SUCCESS) return status;
  IpcHeader header{};
  status = ReadRecord(socketFd_, &header, sizeof(header), true);
  if (status != StatusCode::SUCCESS) return status;
  *replyStatus = static_cast<StatusCode>(header.commandOrStatus);
  if (*replyStatus != StatusCode::SUCCESS) {
    QWD_LOG_WARN(
        kComponent, "Server on channel ID %s replied with status %s(%d) to command ID %d\n",
        channelId_.data(), StatusCodeToStr(*replyStatus), StatusCodeToInt(*replyStatus), commandId);
  }
  if (header.length == 0) return StatusCode::SUCCESS;

  size_t toRead = header.length;
  if (replySize == 0 || reply == nullptr) {
    QWD_LOG_ERROR(kComponent,
                  "Got %zu reply data bytes, but no user buffer to read them on channel ID %s\n",
                  toRead, channelId_.data());
    // Consume the data record so that the next reply starts on its header.
    ReadRecord(socketFd_, nullptr, 0, false);
    return StatusCode::FAILURE;
  }
  if (replySize < toRead) {
    QWD_LOG_WARN(kComponent,
                 "Command type %d on channel ID %s reply needs %zu bytes but only %zu bytes are "
                 "were allocated by the caller!Reply will be truncated!\n",
                 commandId, channelId_.data(), toRead, replySize);
    toRead = replySize;
  }
  status = ReadRecord(socketFd_, reply, toRead, true);
  if (status == StatusCode::SUCCESS) {
    QWD_LOG_VERBOSE(kComponent, "Command type %d executed succcesfully on channel ID %s\n",
                    commandId, channelId_.data());
  }
  return status;
}
