// The server side against a raw peer that may send anything: every request
// is checked, answered or refused exactly as the protocol says, and the
// connection keeps serving the next well-formed request.

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "agent/src/infra/ipc/IpcChannel.h"
#include "tests/agent/infra/ipc/IpcTestPeer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

constexpr uint32_t kMaxRequest = 256;
constexpr uint32_t kReplySize = 64;

// Echoes the request and counts its calls in *context.
StatusCode EchoHandler(const void* data, size_t dataLen, void* reply, size_t replySize,
                       size_t* replyLen, void* context) {
  ++*static_cast<int*>(context);
  *replyLen = std::min(dataLen, replySize);
  std::memcpy(reply, data, *replyLen);
  return StatusCode::SUCCESS;
}

StatusCode HugeReplyHandler(const void*, size_t, void* reply, size_t, size_t* replyLen, void*) {
  static_cast<char*>(reply)[0] = 'x';
  *replyLen = 65537;
  return StatusCode::SUCCESS;
}

StatusCode FailingHandler(const void*, size_t, void* reply, size_t, size_t* replyLen, void*) {
  std::memcpy(reply, "abcde", 5);
  *replyLen = 5;
  return StatusCode::FAILURE;
}

StatusCode OverclaimingHandler(const void*, size_t, void*, size_t replySize, size_t* replyLen,
                               void*) {
  *replyLen = replySize + 100;
  return StatusCode::SUCCESS;
}

class IpcChannelServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_ = CreateIpcChannel(path_.c_str(), kMaxRequest, kReplySize, false);
    ASSERT_NE(server_, nullptr);
    ASSERT_EQ(server_->RegisterHandler(0, EchoHandler, &calls_), StatusCode::SUCCESS);
    ASSERT_EQ(server_->RegisterHandler(1, HugeReplyHandler, nullptr), StatusCode::SUCCESS);
    ASSERT_EQ(server_->RegisterHandler(2, FailingHandler, nullptr), StatusCode::SUCCESS);
    ASSERT_EQ(server_->RegisterHandler(3, OverclaimingHandler, nullptr), StatusCode::SUCCESS);
    ASSERT_EQ(server_->ServerInit(), StatusCode::SUCCESS);
    client_ = RawConnect(path_);
    ASSERT_GE(client_, 0);
    ASSERT_EQ(server_->ServerAccept(1000), StatusCode::SUCCESS);
  }
  void TearDown() override {
    if (client_ >= 0) close(client_);
  }

  // Sends a request, lets the server process it and reads the reply.
  IpcHeader Request(uint32_t magic, uint32_t commandId, const std::string& data,
                    std::string* replyData, StatusCode expected = StatusCode::SUCCESS) {
    EXPECT_TRUE(SendHeader(client_, magic, data.size(), commandId));
    if (!data.empty()) {
      EXPECT_TRUE(SendRecord(client_, data.data(), data.size()));
    }
    EXPECT_EQ(server_->ProcessRequest(true), expected);
    IpcHeader reply{};
    EXPECT_TRUE(ReadReply(client_, &reply, replyData));
    EXPECT_EQ(reply.magic, kIpcMagic);
    return reply;
  }

  // The connection still serves a well-formed request.
  void ExpectEchoServed() {
    std::string echoed;
    const IpcHeader reply = Request(kIpcMagic, 0, "ping", &echoed);
    EXPECT_EQ(reply.commandOrStatus, 0u);
    EXPECT_EQ(echoed, "ping");
  }

  bool ReplyPending() {
    pollfd entry{client_, POLLIN, 0};
    return poll(&entry, 1, 0) == 1;
  }

  LogCapture log_;
  TempDir dir_;
  std::string path_ = dir_.File("server.socket");
  std::unique_ptr<IpcChannel> server_;
  int client_ = -1;
  int calls_ = 0;
};

TEST_F(IpcChannelServerTest, BadMagicIsAnsweredWithFailureAndLoggedInHex) {
  std::string data;
  const IpcHeader reply = Request(0x12345678u, 0, "", &data);
  EXPECT_EQ(reply.commandOrStatus, static_cast<uint32_t>(StatusCode::FAILURE));
  EXPECT_EQ(reply.length, 0u);
  EXPECT_TRUE(log_.Contains("Got invalid magic 0x12345678 instead of dead dude"));
  EXPECT_EQ(calls_, 0);
  ExpectEchoServed();
}

TEST_F(IpcChannelServerTest, CommandTenAndUnregisteredNineAreInvalidParams) {
  std::string data;
  EXPECT_EQ(Request(kIpcMagic, 10, "", &data).commandOrStatus,
            static_cast<uint32_t>(StatusCode::INVALID_PARAM));
  EXPECT_TRUE(log_.Contains("Got command 10, max allowed 10"));
  EXPECT_EQ(Request(kIpcMagic, 9, "", &data).commandOrStatus,
            static_cast<uint32_t>(StatusCode::INVALID_PARAM));
  EXPECT_EQ(log_.Count(LoggerLevel::WARN, "Got un-registered command 9"), 1u);
  ExpectEchoServed();
}

TEST_F(IpcChannelServerTest, OversizedRequestsAreConsumedAndRefused) {
  std::string data;
  IpcHeader reply = Request(kIpcMagic, 0, std::string(300, 'a'), &data);
  EXPECT_EQ(reply.commandOrStatus, static_cast<uint32_t>(StatusCode::INVALID_PARAM));
  EXPECT_TRUE(log_.Contains("Got size 300, larger than max 256"));

  // A 64 kB data record and a 64 kB header record: only the asked bytes are read.
  reply = Request(kIpcMagic, 0, std::string(65536, 'b'), &data);
  EXPECT_EQ(reply.commandOrStatus, static_cast<uint32_t>(StatusCode::INVALID_PARAM));
  std::vector<uint8_t> bigHeader(65536, 0);
  const IpcHeader header{kIpcMagic, 0, 0};
  std::memcpy(bigHeader.data(), &header, sizeof(header));
  ASSERT_TRUE(SendRecord(client_, bigHeader.data(), bigHeader.size()));
  EXPECT_EQ(server_->ProcessRequest(true), StatusCode::SUCCESS);
  ASSERT_TRUE(ReadReply(client_, &reply, &data));
  EXPECT_EQ(reply.commandOrStatus, 0u);

  EXPECT_EQ(calls_, 1);
  ExpectEchoServed();
}

TEST_F(IpcChannelServerTest, ReplyOver65535BytesIsCutToItsLowSixteenBits) {
  std::string data;
  const IpcHeader reply = Request(kIpcMagic, 1, "", &data);
  EXPECT_EQ(reply.commandOrStatus, static_cast<uint32_t>(StatusCode::INVALID_PARAM));
  EXPECT_EQ(reply.length, 1u);
  EXPECT_EQ(data, "x");
  EXPECT_TRUE(log_.Contains("Got reply data len 65537 > UINT16_MAX (65535), truncating"));
  EXPECT_TRUE(log_.Contains("Handler for command ID 1 on channel ID"));
}

TEST_F(IpcChannelServerTest, ReplyLengthBeyondTheBufferIsNeverSent) {
  std::string data;
  const IpcHeader reply = Request(kIpcMagic, 3, "", &data);
  EXPECT_EQ(reply.commandOrStatus, static_cast<uint32_t>(StatusCode::INVALID_PARAM));
  EXPECT_EQ(reply.length, kReplySize);
}

TEST_F(IpcChannelServerTest, ShortHeaderFailsWithoutReplyAndNextRequestIsServed) {
  ASSERT_TRUE(SendRecord(client_, "\x0d\xd0\xad\xde\x00", 5));
  EXPECT_EQ(server_->ProcessRequest(true), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("Read only 5 bytes trying to read header of size 12"));
  EXPECT_FALSE(ReplyPending());
  ExpectEchoServed();
}

TEST_F(IpcChannelServerTest, ShortDataRecordIsAnsweredWithFailure) {
  ASSERT_TRUE(SendHeader(client_, kIpcMagic, 10, 0));
  ASSERT_TRUE(SendRecord(client_, "abc", 3));
  EXPECT_EQ(server_->ProcessRequest(true), StatusCode::SUCCESS);
  IpcHeader reply{};
  std::string data;
  ASSERT_TRUE(ReadReply(client_, &reply, &data));
  EXPECT_EQ(reply.commandOrStatus, static_cast<uint32_t>(StatusCode::FAILURE));
  EXPECT_EQ(calls_, 0);
  ExpectEchoServed();
}

TEST_F(IpcChannelServerTest, HangUpInTheMiddleOfARequestFails) {
  ASSERT_TRUE(SendHeader(client_, kIpcMagic, 10, 0));
  close(client_);
  client_ = -1;
  EXPECT_EQ(server_->ProcessRequest(true), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("Read failed on channel ID"));
  EXPECT_EQ(calls_, 0);
  // Nothing at all: the end of the stream.
  EXPECT_EQ(server_->ServerWaitAndProcess(100), StatusCode::FAILURE);
}

TEST_F(IpcChannelServerTest, WaitTimeOutIsReportedAsFailure) {
  EXPECT_EQ(server_->ServerWaitAndProcess(10), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("Server got timeout while waiting for new message on channel ID"));
  ExpectEchoServed();
}

TEST_F(IpcChannelServerTest, ConnectionIsCloseOnExecAndClosable) {
  const int fd = server_->GetDescriptor();
  ASSERT_GE(fd, 0);
  EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  server_->CloseConnection();
  EXPECT_EQ(server_->GetDescriptor(), -1);
  EXPECT_EQ(server_->ProcessRequest(true), StatusCode::FAILURE);
  EXPECT_EQ(server_->ServerWaitAndProcess(10), StatusCode::FAILURE);
  EXPECT_EQ(log_.Count("Client did not connect yet on channel ID"), 2u);
}

TEST_F(IpcChannelServerTest, AcceptTimesOutAndPathIsNeverUnlinked) {
  EXPECT_EQ(server_->ServerAccept(10), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("Server failed waiting for new connection on channel ID"));
  server_.reset();
  EXPECT_EQ(access(path_.c_str(), F_OK), 0);
  auto second = CreateIpcChannel(path_.c_str(), 0, 0, false);
  EXPECT_EQ(second->ServerInit(), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("Failed binding for channel ID"));
}

// Guards against a second start of a monitored process leaking its first listening socket.
TEST_F(IpcChannelServerTest, SecondServerInitReplacesTheListeningSocket) {
  auto openDescriptors = [] {
    const std::filesystem::directory_iterator fds("/proc/self/fd");
    return std::distance(begin(fds), end(fds));
  };
  const auto before = openDescriptors();
  unlink(path_.c_str());
  EXPECT_EQ(server_->ServerInit(), StatusCode::SUCCESS);
  EXPECT_EQ(openDescriptors(), before);
  EXPECT_TRUE(log_.Contains("was still open, closing it first"));
  const int second = RawConnect(path_);
  EXPECT_GE(second, 0);
  EXPECT_EQ(server_->ServerAccept(1000), StatusCode::SUCCESS);
  close(second);
}

TEST_F(IpcChannelServerTest, RegisterHandlerRefusesIdTenAndWarnsOnReplace) {
  EXPECT_EQ(server_->RegisterHandler(10, EchoHandler, nullptr), StatusCode::INVALID_PARAM);
  EXPECT_TRUE(log_.Contains("Trying to register server handler ID 10 (max allowed 9)"));
  EXPECT_EQ(server_->RegisterHandler(0, FailingHandler, nullptr), StatusCode::SUCCESS);
  EXPECT_EQ(log_.Count(LoggerLevel::WARN, "Replacing current registered handler for ID 0"), 1u);
  std::string data;
  EXPECT_EQ(Request(kIpcMagic, 0, "", &data).commandOrStatus,
            static_cast<uint32_t>(StatusCode::FAILURE));
}

}  // namespace
