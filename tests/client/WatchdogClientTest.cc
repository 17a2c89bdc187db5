// The watchdog client's heartbeat thread against a real IpcChannel server on
// the role's socket. What each command puts on the wire is written once, in
// ipc/WatchdogProtocol.h; the demo story (scripts/demo.sh) drives the
// commands and the heartbeats against the real watchdog.

#include "client/WatchdogClient.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/ipc/IpcTestPeer.h"

namespace {

TEST(WatchdogClientTest, OneHeartbeatThreadThatEndsWhenTheWatchdogGoesAway) {
  unlink(kUserAgentSocketName);
  auto server = CreateIpcChannel(kUserAgentSocketName, sizeof(StatusNotification), 4, false);
  server->RegisterHandler(
      0,
      [](const void*, size_t, void*, size_t, size_t* replyLen, void*) {
        *replyLen = 0;
        return StatusCode::SUCCESS;
      },
      nullptr);
  pid_t watchdog = StartServer(*server);
  ASSERT_GT(watchdog, 0);
  auto client = CreateWatchdogClient(WatchdogRole::USER_AGENT);
  ASSERT_EQ(client->Connect(), StatusCode::SUCCESS);
  ASSERT_EQ(client->StartHeartbeat(20), StatusCode::SUCCESS);
  EXPECT_EQ(client->StartHeartbeat(20), StatusCode::FAILURE);
  usleep(100 * 1000);
  EXPECT_EQ(client->HeartbeatStatus(), StatusCode::SUCCESS);
  KillServer(&watchdog);
  for (int i = 0; i < 100 && client->HeartbeatStatus() == StatusCode::SUCCESS; ++i) {
    usleep(20 * 1000);
  }
  EXPECT_NE(client->HeartbeatStatus(), StatusCode::SUCCESS);
  EXPECT_NE(client->GetWatchdogPid(nullptr), StatusCode::SUCCESS);
}

}  // namespace
