#pragma once

// Log lines as UDP datagrams to a log server. The socket is opened by Enable
// and closed by Disable; while it is closed (or could not be opened) every
// line is dropped. Header and generation are ignored.

#include <netinet/in.h>

#include <memory>

#include "logger/LoggerBaseTarget.h"
#include "logger/LoggerConfig.h"

class UdpLoggerTarget final : public LoggerBaseTarget {
 public:
  // Null for a null configuration or exhausted memory.
  static std::unique_ptr<UdpLoggerTarget> Create(const LoggerConfig* udpConfig);
  // Closes the socket.
  ~UdpLoggerTarget() override;

  // One datagram of `length` bytes; the send result is not checked.
  bool Write(const char* text, size_t length) override;
  // Opens the socket; a failure silently leaves the target disabled.
  void Enable() override;
  void Disable() override;
  bool IsEnabled() override { return socket_ != -1; }

 private:
  UdpLoggerTarget() = default;

  int socket_ = -1;            // datagram socket, -1 while closed
  sockaddr_in destination_{};  // the configured server, network order
};
