// IpcChannel's server side against a raw peer that may send anything, and
// its client side against a real server in a child process.

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "agent/src/infra/ipc/IpcChannel.h"
#include "tests/agent/infra/ipc/IpcTestPeer.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

constexpr uint32_t kFailure = static_cast<uint32_t>(StatusCode::FAILURE);
constexpr uint32_t kInvalid = static_cast<uint32_t>(StatusCode::INVALID_PARAM);
constexpr uint32_t kNoReply = UINT32_MAX;

class IpcChannelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_handlerCalls = 0;
    server_ = CreateIpcChannel(path_.c_str(), 200, 64, false);
    ASSERT_NE(server_, nullptr);
    RegisterTestHandlers(*server_);
  }
  void TearDown() override {
    close(raw_);
    KillServer(&child_);
  }

  // server_ listens here, with a raw client accepted.
  void AcceptRawClient() {
    ASSERT_EQ(server_->ServerInit(), StatusCode::SUCCESS);
    raw_ = RawConnect(path_);
    ASSERT_EQ(server_->ServerAccept(1000), StatusCode::SUCCESS);
  }

  // Sends the records, lets server_ process one request and takes its reply
  // into reply_: the reply status, kNoReply when none came.
  uint32_t RawRequest(const std::string& header, const std::string& data = "") {
    EXPECT_TRUE(SendRecord(raw_, header) && (data.empty() || SendRecord(raw_, data)));
    const StatusCode processed = server_->ProcessRequest(true);
    reply_.clear();
    IpcHeader reply{};
    const bool replied = TakeReply(raw_, &reply, &reply_);
    EXPECT_EQ(processed == StatusCode::SUCCESS, replied);
    EXPECT_TRUE(!replied || reply.magic == kIpcMagic);
    return replied ? reply.commandOrStatus : kNoReply;
  }

  // A fresh server_ process (the path's stale socket removed), and client_.
  void ServeInChild(bool reconnect = false, bool threadSafe = false) {
    unlink(path_.c_str());
    child_ = StartServer(*server_);
    ASSERT_GT(child_, 0);
    if (client_) return;
    client_ = CreateIpcChannel(path_.c_str(), 0, 0, threadSafe);
    ASSERT_EQ(client_->Connect(reconnect), StatusCode::SUCCESS);
  }

  StatusCode Send(int32_t command, const std::string& data, size_t replySize = 16) {
    std::memset(buffer_, 0, sizeof(buffer_));
    return client_->SendCommand(command, data.data(), data.size(), replySize ? buffer_ : nullptr,
                                replySize, 2000);
  }

  LogCapture log_;
  TempDir dir_;
  std::string path_ = dir_.File("channel.socket");
  std::unique_ptr<IpcChannel> server_;
  int raw_ = -1;
  std::string reply_;
  pid_t child_ = -1;
  std::unique_ptr<IpcChannel> client_;
  char buffer_[17] = {};
};

TEST_F(IpcChannelTest, EveryRequestGetsItsReplyStatusAndTheNextOneIsServed) {
  AcceptRawClient();
  const std::string big(65536, 'b');
  const struct {
    std::string header;
    std::string data;  // a second record, sent when not empty
    uint32_t status;
    size_t length;
    int handlerCalls;
    std::string log;
  } cases[] = {
      {Header(0x12345678u, 0, kEcho), "", kFailure, 0, 0,
       "Got invalid magic 0x12345678 instead of dead dude"},
      {Header(kIpcMagic, 0, 10), "", kInvalid, 0, 0, "Got command 10, max allowed 10"},
      {Header(kIpcMagic, 0, 9), "", kInvalid, 0, 0, "Got un-registered command 9"},
      {Header(kIpcMagic, 300, kEcho), std::string(300, 'a'), kInvalid, 0, 0,
       "Got size 300, larger than max 200"},
      {Header(kIpcMagic, 65536, kEcho), big, kInvalid, 0, 0, "Got size 65536, larger than max"},
      {Header(kIpcMagic, 10, kEcho), "abc", kFailure, 0, 0, "Read only 3 bytes"},
      {Header(kIpcMagic, 0, kEcho) + big, "", 0, 0, 1, "Replying to cmd 0 with status SUCCESS(0)"},
      {Header(kIpcMagic, 0, kHugeReply), "", kInvalid, 1, 1,
       "Got reply data len 65537 > UINT16_MAX (65535), truncating"},
      {Header(kIpcMagic, 0, kFailWithData), "", kFailure, 5, 1,
       "Handler for command ID 1 on channel ID " + path_ + " returned FAILURE(3)"},
      {Header(kIpcMagic, 0, kBeyondBuffer), "", kInvalid, 64, 1, "claims 164 reply bytes"},
      // Used to see the text of the request before it.
      {Header(kIpcMagic, 0, kText), "", 0, 0, 1, "Replying to cmd 5 with status SUCCESS(0)"},
      {Header(kIpcMagic, 0, kEcho).substr(0, 5), "", kNoReply, 0, 0,
       "Read only 5 bytes trying to read header of size 12"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.log);
    log_.Clear();
    g_handlerCalls = 0;
    EXPECT_EQ(RawRequest(c.header, c.data), c.status);
    EXPECT_EQ(reply_.size(), c.length);
    EXPECT_EQ(g_handlerCalls, c.handlerCalls);
    EXPECT_TRUE(log_.Contains(c.log)) << log_.Dump();
    EXPECT_EQ(RawRequest(Header(kIpcMagic, 4, kEcho), "ping"), 0u);
    EXPECT_EQ(reply_, "ping");
  }
}

TEST_F(IpcChannelTest, TimeOutsHangUpsAndMissingConnectionsAreFailures) {
  AcceptRawClient();
  EXPECT_EQ(server_->ServerWaitAndProcess(10), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("Server got timeout while waiting for new message on channel ID"));
  ASSERT_TRUE(SendRecord(raw_, Header(kIpcMagic, 10, kEcho)));
  close(raw_);
  EXPECT_EQ(server_->ProcessRequest(true), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("Read failed on channel ID"));
  EXPECT_EQ(g_handlerCalls, 0);
  EXPECT_EQ(server_->ServerWaitAndProcess(100), StatusCode::FAILURE);
  server_->CloseConnection();
  EXPECT_EQ(server_->ProcessRequest(true), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("Client did not connect yet on channel ID"));
  EXPECT_EQ(server_->ServerAccept(10), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("Server failed waiting for new connection on channel ID"));
}

// A header announcing data that never came used to block the watchdog's only
// thread in the read of the data record.
TEST_F(IpcChannelTest, HalfSentRequestIsAFailedReadAfterAShortWait) {
  AcceptRawClient();
  FakeClock clock;
  const int64_t start = clock.NowMsec();
  // A blocking read would end after a real second, not on the fake clock.
  const timeval second{1, 0};
  setsockopt(server_->GetDescriptor(), SOL_SOCKET, SO_RCVTIMEO, &second, sizeof(second));
  EXPECT_EQ(RawRequest(Header(kIpcMagic, 4, kEcho)), kFailure);
  EXPECT_EQ(clock.NowMsec() - start, 300);
  EXPECT_TRUE(log_.Contains("Read failed on channel ID " + path_ + ", errno Connection timed out"));
}

TEST_F(IpcChannelTest, SocketIsOwnerOnlyAndAForeignPeerIsTurnedAway) {
  ASSERT_EQ(server_->ServerInit(), StatusCode::SUCCESS);
  EXPECT_EQ(std::filesystem::status(path_).permissions(), std::filesystem::perms(0600));
  // Opened up as a careless packager might: the peer check still holds.
  chmod(std::filesystem::path(path_).parent_path().c_str(), 0755);
  chmod(path_.c_str(), 0666);
  const pid_t child = fork();
  if (child == 0) {
    if (setuid(65534) != 0) _exit(77);
    const int fd = RawConnect(path_);
    sleep(2);
    _exit(fd >= 0 ? 0 : 1);
  }
  EXPECT_EQ(server_->ServerAccept(1000), StatusCode::FAILURE);
  int status = 0;
  waitpid(child, &status, 0);
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no other user to connect as";
  EXPECT_TRUE(log_.Contains("Refused a connection on channel ID " + path_)) << log_.Dump();
  EXPECT_EQ(server_->GetDescriptor(), -1);
}

TEST_F(IpcChannelTest, PathOutlivesTheChannel) {
  AcceptRawClient();
  server_.reset();
  EXPECT_EQ(CreateIpcChannel(path_.c_str(), 0, 0, false)->ServerInit(), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("Failed binding for channel ID"));
}

// Guards against a second start of a monitored process leaking its first listening socket.
TEST_F(IpcChannelTest, SecondServerInitReplacesTheListeningSocket) {
  auto openDescriptors = [] {
    const std::filesystem::directory_iterator fds("/proc/self/fd");
    return std::distance(begin(fds), end(fds));
  };
  ASSERT_EQ(server_->ServerInit(), StatusCode::SUCCESS);
  const auto before = openDescriptors();
  unlink(path_.c_str());
  EXPECT_EQ(server_->ServerInit(), StatusCode::SUCCESS);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_TRUE(log_.Contains("was still open, closing it first"));
  raw_ = RawConnect(path_);
  EXPECT_EQ(server_->ServerAccept(1000), StatusCode::SUCCESS);
}

// Listening, accepted and client sockets alike are close-on-exec.
TEST_F(IpcChannelTest, ExecutedChildrenInheritNoChannelSocket) {
  AcceptRawClient();
  client_ = CreateIpcChannel(path_.c_str(), 0, 0, false);
  ASSERT_EQ(client_->Connect(false), StatusCode::SUCCESS);
  // grep exits with 1 when the shell holds no socket at all.
  EXPECT_EQ(WEXITSTATUS(system("ls -l /proc/$$/fd | grep -q socket:")), 1);
}

TEST_F(IpcChannelTest, RegisterHandlerRefusesIdsOutOfRangeAndWarnsOnReplace) {
  EXPECT_EQ(server_->RegisterHandler(10, nullptr, nullptr), StatusCode::INVALID_PARAM);
  EXPECT_TRUE(log_.Contains("Trying to register server handler ID 10 (max allowed 9)"));
  EXPECT_EQ(server_->RegisterHandler(-1, nullptr, nullptr), StatusCode::INVALID_PARAM);
  EXPECT_EQ(server_->RegisterHandler(kEcho, nullptr, nullptr), StatusCode::SUCCESS);
  EXPECT_EQ(log_.Count(LoggerLevel::WARN, "Replacing current registered handler for ID 0"), 1u);
  AcceptRawClient();
  EXPECT_EQ(RawRequest(Header(kIpcMagic, 0, kEcho)), kInvalid);
}

TEST_F(IpcChannelTest, ClientReturnsTheReplyStatus) {
  ServeInChild();
  EXPECT_EQ(Send(kEcho, "hello"), StatusCode::SUCCESS);
  EXPECT_STREQ(buffer_, "hello");
  EXPECT_EQ(Send(kFailWithData, ""), StatusCode::FAILURE);
  EXPECT_STREQ(buffer_, "abcde");  // status and data both arrive
  EXPECT_EQ(Send(9, ""), StatusCode::INVALID_PARAM);
  EXPECT_EQ(log_.Count(LoggerLevel::WARN, "replied with status FAILURE(3) to command ID 1"), 1u);
  // The word in this line is always "SUCCESS", whatever the reply said.
  EXPECT_EQ(log_.Count(LoggerLevel::ERROR, "Failed sending command type 1 on channel ID " + path_ +
                                               ", status SUCCESS\n"),
            1u);
}

TEST_F(IpcChannelTest, ShortReplyBufferTruncatesAndZeroSizedOneFails) {
  ServeInChild();
  EXPECT_EQ(Send(kTenBytes, "", 4), StatusCode::SUCCESS);
  EXPECT_STREQ(buffer_, "0123");
  EXPECT_EQ(log_.Count(LoggerLevel::WARN, "reply needs 10 bytes but only 4 bytes"), 1u);
  EXPECT_EQ(Send(kTenBytes, "", 0), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("Got 10 reply data bytes, but no user buffer to read them"));
  // The unread data record was dropped: the next reply is read from its header.
  EXPECT_EQ(Send(kEcho, "next"), StatusCode::SUCCESS);
  EXPECT_STREQ(buffer_, "next");
}

TEST_F(IpcChannelTest, SilentServerTimesOutAndIsReconnectedAtOnce) {
  ASSERT_EQ(server_->ServerInit(), StatusCode::SUCCESS);  // never accepts
  client_ = CreateIpcChannel(path_.c_str(), 0, 0, false);
  ASSERT_EQ(client_->Connect(true), StatusCode::SUCCESS);
  FakeClock clock;
  EXPECT_EQ(client_->SendCommand(kEcho, nullptr, 0, buffer_, 4, 20), StatusCode::TIMEOUT);
  EXPECT_TRUE(log_.Contains("Timed-out waiting 20 milliseconds for new message"));
  EXPECT_TRUE(log_.Contains("reconnection done successfully!"));
  EXPECT_EQ(clock.SleepCalls(), 0u);
}

TEST_F(IpcChannelTest, OnlyAReconnectingClientSurvivesAServerRestart) {
  for (const bool reconnect : {true, false}) {
    SCOPED_TRACE(reconnect);
    client_.reset();
    log_.Clear();
    ServeInChild(reconnect);
    EXPECT_EQ(Send(kEcho, "one"), StatusCode::SUCCESS);
    KillServer(&child_);
    ServeInChild();
    // The failed exchange is not sent again.
    EXPECT_EQ(Send(kEcho, "lost"), StatusCode::FAILURE);
    EXPECT_EQ(log_.Contains("trying to reconnect"), reconnect);
    EXPECT_EQ(Send(kEcho, "two"), reconnect ? StatusCode::SUCCESS : StatusCode::FAILURE);
    KillServer(&child_);
  }
  // Without the flag, the owner recovers by connecting again itself.
  EXPECT_EQ(client_->Connect(false), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("already exists? call disconnect first"));
  client_->Disconnect();
  EXPECT_EQ(Send(kEcho, ""), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("is disconnected! Can't send command type 0"));
  ServeInChild();
  ASSERT_EQ(client_->Connect(false), StatusCode::SUCCESS);
  EXPECT_EQ(Send(kEcho, "four"), StatusCode::SUCCESS);
}

TEST_F(IpcChannelTest, ConnectGivesUpAfterTenAttemptsASecondApart) {
  FakeClock clock;
  client_ = CreateIpcChannel(path_.c_str(), 0, 0, true);
  EXPECT_EQ(client_->Connect(false), StatusCode::FAILURE);
  EXPECT_EQ(clock.SleptMsec(), 10000);
  EXPECT_EQ(log_.Count("Failed connecting to server on channel ID"), 10u);
  EXPECT_TRUE(log_.Contains("attempt 9, errno"));
  EXPECT_TRUE(log_.Contains("Failed connecting client channel ID " + path_));
  // The descriptor went back to -1: a new attempt is not refused as a duplicate.
  EXPECT_EQ(client_->Connect(false), StatusCode::FAILURE);
  EXPECT_FALSE(log_.Contains("already exists"));
}

TEST_F(IpcChannelTest, ThreadSafeClientKeepsExchangesApart) {
  ServeInChild(false, true);
  std::atomic<int> mismatches{0};
  auto worker = [this, &mismatches](char tag) {
    for (int i = 0; i < 100; ++i) {
      const std::string data(1 + i % 50, tag);
      char reply[64] = {};
      if (client_->SendCommand(kEcho, data.data(), data.size(), reply, sizeof(reply), 2000) !=
              StatusCode::SUCCESS ||
          data != reply) {
        ++mismatches;
      }
    }
  };
  std::thread a(worker, 'a');
  worker('b');
  a.join();
  EXPECT_EQ(mismatches, 0);
}

}  // namespace
