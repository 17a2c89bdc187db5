#include "logger/UdpLoggerTarget.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace {

TEST(UdpLoggerTargetTest, EachLineIsOneDatagramAndLinesAreDroppedWhileDisabled) {
  const int server = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  ASSERT_EQ(bind(server, reinterpret_cast<sockaddr*>(&address), length), 0);
  ASSERT_EQ(getsockname(server, reinterpret_cast<sockaddr*>(&address), &length), 0);
  auto config = LoggerConfig::CreateUdpLoggerConfig(INADDR_LOOPBACK, ntohs(address.sin_port));
  auto target = UdpLoggerTarget::Create(config.get());
  EXPECT_FALSE(target->Write("lost", 4));
  target->Enable();
  ASSERT_TRUE(target->Write("{\"level\": \"INFO\"},\n", 19));
  pollfd entry{server, POLLIN, 0};
  ASSERT_EQ(poll(&entry, 1, 2000), 1);
  char datagram[64];
  const ssize_t n = recv(server, datagram, sizeof(datagram), 0);
  EXPECT_EQ(std::string(datagram, n > 0 ? static_cast<size_t>(n) : 0), "{\"level\": \"INFO\"},\n");
  close(server);
}

}  // namespace
