// The listener over real server channels, each with a raw client connected:
// disconnections, and the slot bookkeeping its callers depend on (lowest free
// slot first, only the first in-use entries polled). What each kind of
// request makes of a slot is the fault matrix's (tests/watchdog/e2e).

#include <unistd.h>

#include <array>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "ipc/IpcChannelListener.h"
#include "tests/ipc/IpcTestPeer.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

constexpr uint32_t kCapacity = 5;
using Results = std::array<uint32_t, kCapacity>;

class IpcChannelListenerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    listener_ = CreateIpcChannelListener(kCapacity, "test");
    ASSERT_NE(listener_, nullptr);
    for (uint32_t i = 0; i < kCapacity; ++i) {
      const std::string path = dir_.File("channel" + std::to_string(i));
      servers_[i] = CreateIpcChannel(path.c_str(), 16, 16, false);
      RegisterTestHandlers(*servers_[i]);
      ASSERT_EQ(servers_[i]->ServerInit(), StatusCode::SUCCESS);
      clients_[i] = RawConnect(path);
      ASSERT_EQ(servers_[i]->ServerAccept(1000), StatusCode::SUCCESS);
      ASSERT_EQ(listener_->AddChannel(servers_[i].get()), static_cast<int32_t>(i));
    }
  }
  void TearDown() override {
    for (int client : clients_) close(client);
  }

  bool SendRequest(uint32_t i, uint32_t magic = kIpcMagic) {
    return SendRecord(clients_[i], Header(magic, 0, 0));
  }

  LogCapture log_;
  TempDir dir_;
  std::unique_ptr<IpcChannelListener> listener_;
  std::array<std::unique_ptr<IpcChannel>, kCapacity> servers_;
  std::array<int, kCapacity> clients_{};
  Results results_{};
};

// A client that hung up but lived on used to end every Wait at once, and the
// 2-second watch cycle became a busy loop.
TEST_F(IpcChannelListenerTest, HangUpNeitherShortensTheWaitNorHidesLaterRequests) {
  close(clients_[1]);
  clients_[1] = -1;
  {
    FakeClock clock;
    const int64_t start = clock.NowMsec();
    EXPECT_EQ(listener_->Wait(2000, results_.data()), StatusCode::SUCCESS);
    EXPECT_EQ(clock.NowMsec() - start, 2000);
  }
  std::thread late([this] {
    usleep(50000);
    SendRequest(4);
  });
  EXPECT_EQ(listener_->Wait(5000, results_.data()), StatusCode::SUCCESS);
  late.join();
  // The hang-up was reported once; it is not again.
  EXPECT_EQ(results_, (Results{0, 0, 0, 0, 1}));
}

// The watch serves plain requests until its deadline, and looks at once when
// a request changed something, a peer hung up or the wake descriptor fired.
TEST_F(IpcChannelListenerTest, ServeUntilAnswersOnTheWayAndEndsEarlyOnlyWithAReason) {
  FakeClock clock;
  const auto serve = [&](bool checkNow) {
    const int64_t start = clock.NowMsec();
    bool asked = checkNow;
    listener_->ServeUntil(
        start + 2000, results_.data(), [](void* c) { return *static_cast<bool*>(c); }, &asked);
    return clock.NowMsec() - start;
  };
  SendRequest(2);
  EXPECT_EQ(serve(false), 2000);
  EXPECT_EQ(results_, (Results{0, 0, 1, 0, 0}));
  SendRequest(3);
  EXPECT_EQ(serve(true), 0);
  int wake[2];
  ASSERT_EQ(pipe(wake), 0);
  listener_->SetWakeDescriptor(wake[0]);
  ASSERT_EQ(write(wake[1], "xy", 2), 2);
  EXPECT_EQ(serve(false), 0);
  EXPECT_EQ(serve(false), 2000);  // drained: the next window is a whole one
  close(clients_[0]);
  clients_[0] = -1;
  EXPECT_EQ(serve(false), 0);
  EXPECT_EQ(results_[0], IPC_CHANNEL_DISCONNECTED);
  close(wake[0]);
  close(wake[1]);
}

// Callers rely on the lowest free slot coming first and on only the first
// in-use entries being polled, even when a free slot is removed again.
TEST_F(IpcChannelListenerTest, SlotsAreReusedLowestFirstAndOnlyTheCountedOnesPolled) {
  EXPECT_EQ(listener_->AddChannel(servers_[0].get()), -1);
  EXPECT_EQ(listener_->Wait(10, results_.data()), StatusCode::TIMEOUT);
  listener_->RemoveChannel(0);
  EXPECT_EQ(listener_->GetChannelByDescriptor(4), servers_[4].get());
  ASSERT_TRUE(SendRequest(4));
  EXPECT_EQ(listener_->Wait(10, results_.data()), StatusCode::TIMEOUT);
  EXPECT_EQ(listener_->AddChannel(servers_[0].get()), 0);
  EXPECT_EQ(listener_->Wait(1000, results_.data()), StatusCode::SUCCESS);
  EXPECT_EQ(results_[4], IPC_CHANNEL_PROCESSED_REQUEST);

  for (int i = 0; i < 5; ++i) listener_->RemoveChannel(4);
  EXPECT_EQ(listener_->Wait(10, results_.data()), StatusCode::IRRELEVANT);
  // Slots 0 to 3 are still taken: the count says room, the flags say one slot.
  EXPECT_EQ(listener_->AddChannel(servers_[4].get()), 4);
  EXPECT_EQ(listener_->AddChannel(servers_[4].get()), -1);
  // A count driven below zero must never make Wait poll past its slots.
  listener_->RemoveChannel(4);
  listener_->RemoveChannel(4);
  ASSERT_TRUE(SendRequest(0));
  EXPECT_EQ(listener_->Wait(1000, results_.data()), StatusCode::SUCCESS);
  EXPECT_EQ(results_[0], IPC_CHANNEL_PROCESSED_REQUEST);
}

}  // namespace
