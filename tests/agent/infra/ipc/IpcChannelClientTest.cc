// The client side against a real server in a child process: reply-status
// rules, reply buffers, time-outs, connecting with retries and reconnecting
// after the server restarts.

#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "agent/src/infra/ipc/IpcChannel.h"
#include "tests/agent/infra/ipc/IpcTestPeer.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

enum Command : int32_t { kEcho = 0, kFailWithData = 1, kTenBytes = 2, kUnregistered = 5 };

StatusCode EchoHandler(const void* data, size_t dataLen, void* reply, size_t replySize,
                       size_t* replyLen, void*) {
  *replyLen = std::min(dataLen, replySize);
  std::memcpy(reply, data, *replyLen);
  return StatusCode::SUCCESS;
}

StatusCode FailWithDataHandler(const void*, size_t, void* reply, size_t, size_t* replyLen, void*) {
  std::memcpy(reply, "abcde", 5);
  *replyLen = 5;
  return StatusCode::FAILURE;
}

StatusCode TenBytesHandler(const void*, size_t, void* reply, size_t, size_t* replyLen, void*) {
  std::memcpy(reply, "0123456789", 10);
  *replyLen = 10;
  return StatusCode::SUCCESS;
}

class IpcChannelClientTest : public ::testing::Test {
 protected:
  void TearDown() override {
    client_.reset();
    for (pid_t pid : servers_) WaitChild(pid);
  }

  // A fresh server process on path_; a stale socket file is removed first.
  void StartServing() {
    unlink(path_.c_str());
    auto server = CreateIpcChannel(path_.c_str(), 256, 64, false);
    ASSERT_NE(server, nullptr);
    server->RegisterHandler(kEcho, EchoHandler, nullptr);
    server->RegisterHandler(kFailWithData, FailWithDataHandler, nullptr);
    server->RegisterHandler(kTenBytes, TenBytesHandler, nullptr);
    const pid_t pid = StartServer(*server);
    ASSERT_GT(pid, 0);
    servers_.push_back(pid);
  }

  void ConnectClient(bool reconnect, bool threadSafe = false) {
    client_ = CreateIpcChannel(path_.c_str(), 0, 0, threadSafe);
    ASSERT_NE(client_, nullptr);
    ASSERT_EQ(client_->Connect(reconnect), StatusCode::SUCCESS);
  }

  // One good exchange with a first server, which then crashes and is replaced.
  void ExchangeThenRestartServer(bool reconnect) {
    StartServing();
    ConnectClient(reconnect);
    char reply[8] = {};
    EXPECT_EQ(Send(kEcho, "one", reply, sizeof(reply)), StatusCode::SUCCESS);
    KillServer(servers_.back());
    servers_.pop_back();
    StartServing();
  }

  StatusCode Send(int32_t command, const std::string& data, char* reply, size_t replySize) {
    return client_->SendCommand(command, data.data(), data.size(), reply, replySize, 2000);
  }

  LogCapture log_;
  TempDir dir_;
  std::string path_ = dir_.File("client.socket");
  std::unique_ptr<IpcChannel> client_;
  std::vector<pid_t> servers_;
};

TEST_F(IpcChannelClientTest, ReplyStatusRules) {
  StartServing();
  ConnectClient(false);
  char reply[16] = {};
  EXPECT_EQ(Send(kEcho, "hello", reply, sizeof(reply)), StatusCode::SUCCESS);
  EXPECT_STREQ(reply, "hello");

  // A failing handler's status and data both reach the client.
  std::memset(reply, 0, sizeof(reply));
  EXPECT_EQ(Send(kFailWithData, "", reply, sizeof(reply)), StatusCode::FAILURE);
  EXPECT_STREQ(reply, "abcde");
  EXPECT_EQ(log_.Count(LoggerLevel::WARN, "replied with status FAILURE(3) to command ID 1"), 1u);
  // The word in this line is always "SUCCESS", whatever the reply said.
  EXPECT_EQ(log_.Count(LoggerLevel::ERROR, "Failed sending command type 1 on channel ID " + path_ +
                                               ", status SUCCESS\n"),
            1u);

  EXPECT_EQ(Send(kUnregistered, "", reply, sizeof(reply)), StatusCode::INVALID_PARAM);
  EXPECT_EQ(Send(10, "", reply, sizeof(reply)), StatusCode::INVALID_PARAM);
  EXPECT_EQ(Send(kEcho, std::string(300, 'a'), reply, sizeof(reply)), StatusCode::INVALID_PARAM);
  EXPECT_EQ(Send(kEcho, "again", reply, sizeof(reply)), StatusCode::SUCCESS);
  EXPECT_STREQ(reply, "again");
}

TEST_F(IpcChannelClientTest, ShortReplyBufferTruncatesAndZeroSizedOneFails) {
  StartServing();
  ConnectClient(false);
  char reply[8] = {};
  EXPECT_EQ(Send(kTenBytes, "", reply, 4), StatusCode::SUCCESS);
  EXPECT_STREQ(reply, "0123");
  EXPECT_EQ(log_.Count(LoggerLevel::WARN, "reply needs 10 bytes but only 4 bytes"), 1u);

  EXPECT_EQ(Send(kTenBytes, "", nullptr, 0), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("Got 10 reply data bytes, but no user buffer to read them"));
  // The unread data record was dropped: the next reply is read from its header.
  EXPECT_EQ(Send(kEcho, "next", reply, sizeof(reply)), StatusCode::SUCCESS);
  EXPECT_STREQ(reply, "next");
}

TEST_F(IpcChannelClientTest, SilentServerTimesOut) {
  // Listening but never accepting: the request is queued and never answered.
  auto server = CreateIpcChannel(path_.c_str(), 0, 0, false);
  ASSERT_EQ(server->ServerInit(), StatusCode::SUCCESS);
  ConnectClient(true);
  FakeClock clock;
  char reply[4];
  EXPECT_EQ(client_->SendCommand(kEcho, nullptr, 0, reply, sizeof(reply), 20), StatusCode::TIMEOUT);
  EXPECT_TRUE(log_.Contains("Timed-out waiting 20 milliseconds for new message"));
  // A time-out is a transport failure too: the client reconnects at once.
  EXPECT_TRUE(log_.Contains("trying to reconnect"));
  EXPECT_TRUE(log_.Contains("reconnection done successfully!"));
  EXPECT_EQ(clock.SleepCalls(), 0u);
}

TEST_F(IpcChannelClientTest, ReconnectsAfterTheServerRestarts) {
  ExchangeThenRestartServer(true);
  char reply[8] = {};
  // The failed exchange reconnects but is not sent again.
  EXPECT_EQ(Send(kEcho, "lost", reply, sizeof(reply)), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("trying to reconnect"));
  EXPECT_FALSE(log_.Contains("Failed reconnecting channel ID"));
  EXPECT_EQ(Send(kEcho, "two", reply, sizeof(reply)), StatusCode::SUCCESS);
  EXPECT_STREQ(reply, "two");
}

TEST_F(IpcChannelClientTest, WithoutReconnectFlagABrokenChannelStaysBroken) {
  ExchangeThenRestartServer(false);
  char reply[8] = {};
  EXPECT_EQ(Send(kEcho, "two", reply, sizeof(reply)), StatusCode::FAILURE);
  EXPECT_EQ(Send(kEcho, "three", reply, sizeof(reply)), StatusCode::FAILURE);
  EXPECT_FALSE(log_.Contains("trying to reconnect"));
  // The owner recovers by connecting again itself.
  client_->Disconnect();
  ASSERT_EQ(client_->Connect(false), StatusCode::SUCCESS);
  EXPECT_EQ(Send(kEcho, "four", reply, sizeof(reply)), StatusCode::SUCCESS);
  EXPECT_STREQ(reply, "four");
}

TEST_F(IpcChannelClientTest, ConnectGivesUpAfterTenAttemptsASecondApart) {
  FakeClock clock;
  client_ = CreateIpcChannel(path_.c_str(), 0, 0, true);
  EXPECT_EQ(client_->Connect(false), StatusCode::FAILURE);
  EXPECT_EQ(clock.SleepCalls(), 10u);
  EXPECT_EQ(clock.SleptMsec(), 10000);
  EXPECT_EQ(log_.Count("Failed connecting to server on channel ID"), 10u);
  EXPECT_TRUE(log_.Contains("attempt 9, errno"));
  EXPECT_TRUE(log_.Contains("Failed connecting client channel ID " + path_));
  // The descriptor went back to -1: a new attempt is not refused as a duplicate.
  EXPECT_EQ(client_->Connect(false), StatusCode::FAILURE);
  EXPECT_FALSE(log_.Contains("already exists"));
}

TEST_F(IpcChannelClientTest, SecondConnectIsRefusedUntilDisconnect) {
  StartServing();
  ConnectClient(false);
  EXPECT_EQ(client_->Connect(false), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("already exists? call disconnect first"));
  client_->Disconnect();
  EXPECT_EQ(client_->SendCommand(kEcho, nullptr, 0, nullptr, 0, 10), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("is disconnected! Can't send command type 0"));
}

TEST_F(IpcChannelClientTest, ExecutedChildrenInheritNoChannelSocket) {
  StartServing();
  ConnectClient(false);
  auto listening = CreateIpcChannel(dir_.File("other.socket").c_str(), 0, 0, false);
  ASSERT_EQ(listening->ServerInit(), StatusCode::SUCCESS);
  // grep exits with 1 when the shell holds no socket at all.
  const int rc = system("ls -l /proc/$$/fd | grep -q socket:");
  EXPECT_EQ(WEXITSTATUS(rc), 1);
}

TEST_F(IpcChannelClientTest, ThreadSafeClientKeepsExchangesApart) {
  StartServing();
  ConnectClient(false, true);
  auto worker = [this](char tag, int* mismatches) {
    for (int i = 0; i < 100; ++i) {
      const std::string data(1 + i % 50, tag);
      char reply[64] = {};
      if (Send(kEcho, data, reply, sizeof(reply)) != StatusCode::SUCCESS || data != reply) {
        ++*mismatches;
      }
    }
  };
  int mismatchesA = 0;
  int mismatchesB = 0;
  std::thread a(worker, 'a', &mismatchesA);
  std::thread b(worker, 'b', &mismatchesB);
  a.join();
  b.join();
  EXPECT_EQ(mismatchesA, 0);
  EXPECT_EQ(mismatchesB, 0);
}

}  // namespace
