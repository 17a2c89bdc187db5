#include "agent/src/infra/logger/UdpLoggerTarget.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace {

class UdpLoggerTargetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_ = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(server_, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(server_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    socklen_t length = sizeof(address);
    ASSERT_EQ(getsockname(server_, reinterpret_cast<sockaddr*>(&address), &length), 0);
    config_ = LoggerConfig::CreateUdpLoggerConfig(INADDR_LOOPBACK, ntohs(address.sin_port));
  }
  void TearDown() override { close(server_); }

  // The next datagram, waiting up to two seconds; "" when none came.
  std::string Receive() {
    pollfd entry{server_, POLLIN, 0};
    if (poll(&entry, 1, 2000) != 1) return "";
    char datagram[4096];
    const ssize_t n = recv(server_, datagram, sizeof(datagram), MSG_DONTWAIT);
    return n > 0 ? std::string(datagram, static_cast<size_t>(n)) : "";
  }

  int server_ = -1;
  std::unique_ptr<LoggerConfig> config_;
};

TEST_F(UdpLoggerTargetTest, EnabledTargetSendsEachLineAsOneDatagram) {
  auto target = UdpLoggerTarget::Create(config_.get());
  ASSERT_NE(target, nullptr);
  target->Enable();
  ASSERT_TRUE(target->IsEnabled());
  ASSERT_TRUE(target->Write("{\"level\": \"INFO\"},\n", 19));
  EXPECT_EQ(Receive(), "{\"level\": \"INFO\"},\n");
}

TEST_F(UdpLoggerTargetTest, LinesAreDroppedWhileTheSocketIsClosed) {
  auto target = UdpLoggerTarget::Create(config_.get());
  EXPECT_FALSE(target->IsEnabled());
  EXPECT_FALSE(target->Write("lost", 4));
  target->Enable();
  target->Disable();
  EXPECT_FALSE(target->Write("lost again", 10));
  target->Enable();
  ASSERT_TRUE(target->Write("kept", 4));
  EXPECT_EQ(Receive(), "kept");  // the first datagram that arrived
  EXPECT_EQ(UdpLoggerTarget::Create(nullptr), nullptr);
}

}  // namespace
