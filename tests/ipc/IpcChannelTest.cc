// IpcChannel's server side against a raw peer that may send anything, and
// its client side against a real server in a child process. Bad magic,
// oversized records and hang-ups on the watchdog's own channels are the
// fault matrix's (tests/watchdog/e2e); a header whose data never comes is
// the roads' (HalfSentRequestIsAnswered...).

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

#include "ipc/IpcChannel.h"
#include "tests/ipc/IpcTestPeer.h"
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

  // server_ served by a child process, and a thread-safe client_ connected to it.
  void ServeInChild() {
    child_ = StartServer(*server_);
    ASSERT_GT(child_, 0);
    client_ = CreateIpcChannel(path_.c_str(), 0, 0, true);
    ASSERT_EQ(client_->Connect(false), StatusCode::SUCCESS);
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
  EXPECT_EQ(server_->RegisterHandler(10, nullptr, nullptr), StatusCode::INVALID_PARAM);
  EXPECT_EQ(server_->RegisterHandler(-1, nullptr, nullptr), StatusCode::INVALID_PARAM);
  AcceptRawClient();
  const struct {
    std::string header;
    std::string data;  // a second record, sent when not empty
    uint32_t status;
    size_t length;
    int handlerCalls;
    std::string log;
  } cases[] = {
      {Header(kIpcMagic, 0, 10), "", kInvalid, 0, 0, "Got command 10, max allowed 10"},
      {Header(kIpcMagic, 0, 9), "", kInvalid, 0, 0, "Got un-registered command 9"},
      {Header(kIpcMagic, 10, kEcho), "abc", kFailure, 0, 0, "Read only 3 bytes"},
      {Header(kIpcMagic, 0, kEcho) + std::string(65536, 'b'), "", 0, 0, 1,
       "Replying to cmd 0 with status SUCCESS(0)"},
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

// The data record is taken at once when queued; one that lags is waited for.
TEST_F(IpcChannelTest, DataRecordLaggingItsHeaderIsWaitedFor) {
  AcceptRawClient();
  ASSERT_TRUE(SendRecord(raw_, Header(kIpcMagic, 4, kEcho)));
  std::thread late([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    SendRecord(raw_, "late");
  });
  EXPECT_EQ(server_->ProcessRequest(true), StatusCode::SUCCESS);
  late.join();
  IpcHeader reply{};
  ASSERT_TRUE(TakeReply(raw_, &reply, &reply_));
  EXPECT_EQ(reply_, "late");
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

// Listening, accepted and client sockets alike are close-on-exec; a second
// start of a monitored process used to leak its first listening socket.
TEST_F(IpcChannelTest, NoSocketLeaksIntoChildrenOrPastASecondServerInit) {
  auto openDescriptors = [] {
    const std::filesystem::directory_iterator fds("/proc/self/fd");
    return std::distance(begin(fds), end(fds));
  };
  ASSERT_EQ(server_->ServerInit(), StatusCode::SUCCESS);
  const auto before = openDescriptors();
  unlink(path_.c_str());
  AcceptRawClient();  // a second ServerInit, a raw client and its accepted socket
  EXPECT_EQ(openDescriptors(), before + 2);
  client_ = CreateIpcChannel(path_.c_str(), 0, 0, false);
  ASSERT_EQ(client_->Connect(false), StatusCode::SUCCESS);
  // grep exits with 1 when the shell holds no socket at all.
  EXPECT_EQ(WEXITSTATUS(system("ls -l /proc/$$/fd | grep -q socket:")), 1);
}

TEST_F(IpcChannelTest, ClientReturnsTheReplyStatusAndWhatFitsItsBufferOnAnyThread) {
  ServeInChild();
  // command, data, reply buffer size, status, reply
  const std::tuple<int32_t, std::string, size_t, StatusCode, std::string> cases[] = {
      {kEcho, "hello", 16, StatusCode::SUCCESS, "hello"},
      {kFailWithData, "", 16, StatusCode::FAILURE, "abcde"},  // status and data both arrive
      {9, "", 16, StatusCode::INVALID_PARAM, ""},
      {kTenBytes, "", 4, StatusCode::SUCCESS, "0123"},
      {kTenBytes, "", 0, StatusCode::FAILURE, ""},
      // The unread data record was dropped: the next reply is read from its header.
      {kEcho, "next", 16, StatusCode::SUCCESS, "next"},
  };
  for (const auto& [command, data, size, status, reply] : cases) {
    SCOPED_TRACE(command);
    EXPECT_EQ(Send(command, data, size), status);
    EXPECT_STREQ(buffer_, reply.c_str());
  }
  // Exchanges from two threads are kept apart.
  std::atomic<int> mismatches{0};
  auto worker = [this, &mismatches](char tag) {
    for (int i = 0; i < 100; ++i) {
      const std::string data(1 + i % 50, tag);
      char reply[64] = {};
      mismatches += client_->SendCommand(kEcho, data.data(), data.size(), reply, sizeof(reply),
                                         2000) != StatusCode::SUCCESS ||
                    data != reply;
    }
  };
  std::thread a(worker, 'a');
  worker('b');
  a.join();
  EXPECT_EQ(mismatches, 0);
}

}  // namespace
