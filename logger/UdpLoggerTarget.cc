#include "logger/UdpLoggerTarget.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <new>

std::unique_ptr<UdpLoggerTarget> UdpLoggerTarget::Create(const LoggerConfig* udpConfig) {
  if (udpConfig == nullptr) return nullptr;
  std::unique_ptr<UdpLoggerTarget> target(new (std::nothrow) UdpLoggerTarget());
  if (!target) return nullptr;
  target->destination_.sin_family = AF_INET;
  target->destination_.sin_port = htons(static_cast<uint16_t>(udpConfig->GetServerPort()));
  target->destination_.sin_addr.s_addr = htonl(udpConfig->GetServerIp());
  return target;
}

UdpLoggerTarget::~UdpLoggerTarget() { Disable(); }

bool UdpLoggerTarget::Write(const char* text, size_t length) {
  if (text == nullptr || length == 0 || !IsEnabled()) return false;
  sendto(socket_, text, length, 0, reinterpret_cast<const sockaddr*>(&destination_),
         sizeof(destination_));
  return true;
}

void UdpLoggerTarget::Enable() {
  if (socket_ != -1) return;
  socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (socket_ < 0) socket_ = -1;
}

void UdpLoggerTarget::Disable() {
  if (socket_ != -1) {
    close(socket_);
    socket_ = -1;
  }
}
