// The listener over real server channels, each with a raw client connected:
// per-slot results, disconnections, and the slot bookkeeping its callers
// depend on (lowest free slot first, only the first in-use entries polled).

#include <unistd.h>

#include <array>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "agent/src/infra/ipc/IpcChannelListener.h"
#include "tests/agent/infra/ipc/IpcTestPeer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

StatusCode AckHandler(const void*, size_t, void*, size_t, size_t* replyLen, void*) {
  *replyLen = 0;
  return StatusCode::SUCCESS;
}

// A server channel with its connection accepted from a raw client.
struct Endpoint {
  std::unique_ptr<IpcChannel> server;
  int client = -1;
};

class IpcChannelListenerTest : public ::testing::Test {
 protected:
  static constexpr uint32_t kCapacity = 3;

  void SetUp() override {
    listener_ = CreateIpcChannelListener(kCapacity, "test");
    ASSERT_NE(listener_, nullptr);
    for (uint32_t i = 0; i < kCapacity; ++i) {
      Endpoint& endpoint = endpoints_[i];
      const std::string path = dir_.File("channel" + std::to_string(i));
      endpoint.server = CreateIpcChannel(path.c_str(), 16, 16, false);
      endpoint.server->RegisterHandler(0, AckHandler, nullptr);
      ASSERT_EQ(endpoint.server->ServerInit(), StatusCode::SUCCESS);
      endpoint.client = RawConnect(path);
      ASSERT_EQ(endpoint.server->ServerAccept(1000), StatusCode::SUCCESS);
    }
  }
  void TearDown() override {
    for (Endpoint& endpoint : endpoints_) {
      if (endpoint.client >= 0) close(endpoint.client);
    }
  }

  void AddAll() {
    for (uint32_t i = 0; i < kCapacity; ++i) {
      ASSERT_EQ(listener_->AddChannel(endpoints_[i].server.get()), static_cast<int32_t>(i));
    }
  }

  // The reply status that the client of endpoint i received.
  uint32_t ReplyStatus(uint32_t i) {
    IpcHeader reply{};
    std::string data;
    EXPECT_TRUE(ReadReply(endpoints_[i].client, &reply, &data));
    return reply.commandOrStatus;
  }

  LogCapture log_;
  TempDir dir_;
  std::unique_ptr<IpcChannelListener> listener_;
  std::array<Endpoint, kCapacity> endpoints_;
  std::array<uint32_t, kCapacity> results_{};
};

TEST_F(IpcChannelListenerTest, ProcessesOneRequestOnEveryReadableChannel) {
  AddAll();
  ASSERT_TRUE(SendHeader(endpoints_[0].client, kIpcMagic, 0, 0));
  ASSERT_TRUE(SendHeader(endpoints_[2].client, kIpcMagic, 0, 0));
  EXPECT_EQ(listener_->Wait(1000, results_.data()), StatusCode::SUCCESS);
  EXPECT_EQ(results_, (std::array<uint32_t, kCapacity>{1, 0, 1}));
  EXPECT_EQ(ReplyStatus(0), 0u);
  EXPECT_EQ(ReplyStatus(2), 0u);
}

TEST_F(IpcChannelListenerTest, HangUpGivesDisconnectionWhileWaitSucceeds) {
  AddAll();
  close(endpoints_[1].client);
  endpoints_[1].client = -1;
  ASSERT_TRUE(SendHeader(endpoints_[0].client, kIpcMagic, 0, 0));
  EXPECT_EQ(listener_->Wait(1000, results_.data()), StatusCode::SUCCESS);
  EXPECT_EQ(results_, (std::array<uint32_t, kCapacity>{1, 3, 0}));
  EXPECT_EQ(log_.Count(LoggerLevel::ERROR,
                       "listener 'test' polled on channel ID 1 for POLLIN, got a disconnection"),
            1u);
}

TEST_F(IpcChannelListenerTest, BadRequestAnsweredByTheChannelCountsAsProcessed) {
  AddAll();
  ASSERT_TRUE(SendHeader(endpoints_[1].client, 0x12345678u, 0, 0));
  EXPECT_EQ(listener_->Wait(1000, results_.data()), StatusCode::SUCCESS);
  EXPECT_EQ(results_[1], IPC_CHANNEL_PROCESSED_REQUEST);
  EXPECT_EQ(ReplyStatus(1), static_cast<uint32_t>(StatusCode::FAILURE));
}

TEST_F(IpcChannelListenerTest, UnreadableRequestGivesFailedProcessing) {
  AddAll();
  ASSERT_TRUE(SendRecord(endpoints_[2].client, "short", 5));
  EXPECT_EQ(listener_->Wait(1000, results_.data()), StatusCode::SUCCESS);
  EXPECT_EQ(results_[2], IPC_CHANNEL_FAILED_PROCESSING);
  EXPECT_TRUE(
      log_.Contains("Failed processing the request after it was triggered.Returned status "
                    "FAILURE(3)"));
}

TEST_F(IpcChannelListenerTest, WaitWithoutChannelsOrTrafficReturnsAtOnce) {
  results_.fill(7);
  EXPECT_EQ(listener_->Wait(1000, results_.data()), StatusCode::IRRELEVANT);
  EXPECT_EQ(results_, (std::array<uint32_t, kCapacity>{0, 0, 0}));
  AddAll();
  EXPECT_EQ(listener_->Wait(10, results_.data()), StatusCode::TIMEOUT);
  EXPECT_EQ(log_.Count(LoggerLevel::ERROR, "IPC channel listener 'test' polling timed out."), 1u);
}

TEST_F(IpcChannelListenerTest, FullListenerRefusesAnotherChannel) {
  AddAll();
  EXPECT_EQ(listener_->AddChannel(endpoints_[0].server.get()), -1);
  EXPECT_TRUE(log_.Contains("IPC channel listener 'test' exhausted, already listening on 3"));
}

TEST_F(IpcChannelListenerTest, RemovingAnEarlySlotHidesTheLaterOnesFromWait) {
  AddAll();
  listener_->RemoveChannel(0);
  EXPECT_EQ(listener_->GetChannelByDescriptor(0), nullptr);
  EXPECT_EQ(listener_->GetChannelByDescriptor(2), endpoints_[2].server.get());
  // Two in use: entries 0 (now free) and 1 are polled, slot 2 is not.
  ASSERT_TRUE(SendHeader(endpoints_[2].client, kIpcMagic, 0, 0));
  EXPECT_EQ(listener_->Wait(10, results_.data()), StatusCode::TIMEOUT);
  // The lowest free slot is reused.
  EXPECT_EQ(listener_->AddChannel(endpoints_[0].server.get()), 0);
  EXPECT_EQ(listener_->Wait(1000, results_.data()), StatusCode::SUCCESS);
  EXPECT_EQ(results_[2], IPC_CHANNEL_PROCESSED_REQUEST);
}

TEST_F(IpcChannelListenerTest, RemovingAFreeSlotStillLowersTheCount) {
  AddAll();
  listener_->RemoveChannel(2);
  listener_->RemoveChannel(2);
  listener_->RemoveChannel(2);
  EXPECT_EQ(listener_->Wait(10, results_.data()), StatusCode::IRRELEVANT);
  // Slots 0 and 1 are still taken: the count says room, the flags say none.
  EXPECT_EQ(listener_->AddChannel(endpoints_[2].server.get()), 2);
  EXPECT_EQ(listener_->AddChannel(endpoints_[2].server.get()), -1);
  EXPECT_TRUE(log_.Contains("can't find empty channel slot, in use 1, max 3"));
  listener_->RemoveChannel(-1);
  EXPECT_TRUE(log_.Contains("can't remove channel descriptor -1. Max channels: 1"));
}

TEST_F(IpcChannelListenerTest, RemovingBeyondZeroNeverPollsPastTheSlots) {
  listener_->RemoveChannel(0);
  ASSERT_EQ(listener_->AddChannel(endpoints_[1].server.get()), 0);
  ASSERT_TRUE(SendHeader(endpoints_[1].client, kIpcMagic, 0, 0));
  EXPECT_EQ(listener_->Wait(1000, results_.data()), StatusCode::IRRELEVANT);
}

TEST(IpcChannelWaitResultToStrTest, OnlyValuesOneToFiveHaveTexts) {
  EXPECT_STREQ(IpcChannelWaitResultToStr(0), "N/A");
  EXPECT_STREQ(IpcChannelWaitResultToStr(1), "processed request successfully");
  EXPECT_STREQ(IpcChannelWaitResultToStr(2), "channel was triggered");
  EXPECT_STREQ(IpcChannelWaitResultToStr(3), "poll returned a disconnection error");
  EXPECT_STREQ(IpcChannelWaitResultToStr(4), "poll returned an error (not a disconnection)");
  EXPECT_STREQ(IpcChannelWaitResultToStr(5), "Failed processing request");
  EXPECT_STREQ(IpcChannelWaitResultToStr(6), "N/A");
  EXPECT_STREQ(IpcChannelWaitResultToStr(UINT32_MAX), "N/A");
}

}  // namespace
