#pragma once

// Socket helpers shared by the server and client halves of IpcChannel.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>

#include "common/StringUtils.h"

namespace UnixSocket {

// The channel id as a socket address; only its first 107 characters fit.
inline sockaddr_un MakeAddress(const char* channelId) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  SafeStrCopy(address.sun_path, sizeof(address.sun_path), channelId);
  return address;
}

// Closes an open descriptor and marks it closed (-1).
inline void Close(int32_t* fd) {
  if (*fd >= 0) {
    close(*fd);
    *fd = -1;
  }
}

}  // namespace UnixSocket
