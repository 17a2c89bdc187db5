// The watchdog client against a real IpcChannel server on the role's socket:
// what each call puts on the wire, what it makes of the reply, and the
// heartbeat thread's notifications and its end when the watchdog goes away.

#include "client/WatchdogClient.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "ipc/IpcChannel.h"
#include "watchdog/entities/MonitoredProcess.h"

namespace {

struct Request {
  int32_t command;
  std::string data;
};

// A watchdog stand-in: every command is recorded and answered with
// g_replyStatus and the 4 bytes of g_replyValue.
std::mutex g_mutex;
std::vector<Request> g_requests;
StatusCode g_replyStatus = StatusCode::SUCCESS;
uint32_t g_replyValue = 0;

StatusCode Record(const void* data, size_t dataLen, void* reply, size_t, size_t* replyLen,
                  void* context) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_requests.push_back({static_cast<int32_t>(reinterpret_cast<intptr_t>(context)),
                        std::string(static_cast<const char*>(data), dataLen)});
  std::memcpy(reply, &g_replyValue, sizeof(g_replyValue));
  *replyLen = g_requests.back().command == 0 ? 0 : sizeof(g_replyValue);
  return g_requests.back().command == 0 ? StatusCode::SUCCESS : g_replyStatus;
}

class FakeWatchdog {
 public:
  explicit FakeWatchdog(const char* socket) : server_(CreateIpcChannel(socket, 200, 4, false)) {
    for (intptr_t id = 0; id < 10; ++id) {
      server_->RegisterHandler(static_cast<int32_t>(id), Record, reinterpret_cast<void*>(id));
    }
    std::remove(socket);
    EXPECT_EQ(server_->ServerInit(), StatusCode::SUCCESS);
    thread_ = std::thread([this] {
      if (server_->ServerAccept(5000) != StatusCode::SUCCESS) return;
      // A time-out is a FAILURE too: serve until asked to stop.
      while (!stop_) server_->ServerWaitAndProcess(100);
    });
  }
  ~FakeWatchdog() { Close(); }
  // The watchdog goes away: its end of the connection closes.
  void Close() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    server_->CloseConnection();
    server_->CloseServerSocket();
  }

 private:
  std::unique_ptr<IpcChannel> server_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

std::vector<Request> TakeRequests() {
  std::lock_guard<std::mutex> lock(g_mutex);
  std::vector<Request> taken;
  taken.swap(g_requests);
  return taken;
}

std::string Bytes(std::initializer_list<uint32_t> words) {
  std::string bytes;
  for (uint32_t word : words) bytes.append(reinterpret_cast<const char*>(&word), sizeof(word));
  return bytes;
}

StatusNotification AsNotification(const Request& request) {
  StatusNotification note{};
  EXPECT_EQ(request.data.size(), sizeof(note));
  std::memcpy(&note, request.data.data(), std::min(request.data.size(), sizeof(note)));
  return note;
}

class WatchdogClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    TakeRequests();
    g_replyStatus = StatusCode::SUCCESS;
    client_ = CreateWatchdogClient(WatchdogRole::USER_AGENT);
    ASSERT_NE(client_, nullptr);
    ASSERT_EQ(client_->Connect(), StatusCode::SUCCESS);
  }

  FakeWatchdog watchdog_{kUserAgentSocketName};
  std::unique_ptr<WatchdogClient> client_;
};

// The demo story checks log level (2), generation (1), mode (3), restart (4),
// account id (6) and an unflagged memory limit (7) against the real watchdog.
TEST_F(WatchdogClientTest, EachCommandSendsTheHandlersLayoutAndReadsItsReply) {
  using Call = std::function<StatusCode(WatchdogClient&, int32_t*)>;
  // command, request bytes, the call, whether it replies a value
  const std::tuple<int32_t, std::string, Call, bool> cases[] = {
      {5, std::string("41.0.0.1", 9),
       [](WatchdogClient& c, int32_t*) { return c.ReportNewestVersion("41.0.0.1"); }, false},
      {7, Bytes({4096}) + std::string(1, '\1'),
       [](WatchdogClient& c, int32_t*) { return c.SetMemoryLimit(4096, true); }, false},
      {8, "", [](WatchdogClient& c, int32_t* v) { return c.GetWatchdogPid(v); }, true},
      {9, "", [](WatchdogClient& c, int32_t* v) { return c.LoadKernelModule(v); }, true},
  };
  for (const StatusCode replyStatus : {StatusCode::SUCCESS, StatusCode::INVALID_PARAM}) {
    g_replyStatus = replyStatus;
    for (const auto& [command, request, call, repliesValue] : cases) {
      SCOPED_TRACE(command);
      g_replyValue = 4242u + static_cast<uint32_t>(command);
      int32_t value = -1;
      EXPECT_EQ(call(*client_, &value), replyStatus);
      const std::vector<Request> seen = TakeRequests();
      ASSERT_EQ(seen.size(), 1u);
      EXPECT_EQ(seen[0].command, command);
      EXPECT_EQ(seen[0].data, request);
      EXPECT_EQ(value, repliesValue ? 4242 + command : -1);
    }
  }
}

TEST_F(WatchdogClientTest, HeartbeatsCarryPidAndSocketUntilStoppedOrTheWatchdogGoesAway) {
  ASSERT_EQ(client_->StartHeartbeat(20), StatusCode::SUCCESS);
  EXPECT_EQ(client_->StartHeartbeat(20), StatusCode::FAILURE);
  usleep(200 * 1000);
  client_->StopHeartbeat();
  const std::vector<Request> beats = TakeRequests();
  ASSERT_GE(beats.size(), 3u);
  for (const Request& beat : beats) {
    const StatusNotification note = AsNotification(beat);
    EXPECT_EQ(beat.command, 0);
    EXPECT_NE(note.ok, 0u);
    EXPECT_EQ(note.pid, getpid());
    EXPECT_STREQ(note.socketName.data(), kUserAgentSocketName);
  }
  usleep(100 * 1000);
  EXPECT_TRUE(TakeRequests().empty());
  EXPECT_EQ(client_->HeartbeatStatus(), StatusCode::SUCCESS);

  // A failure notification carries its text, cut to the payload's field.
  EXPECT_EQ(client_->NotifyStatus(false, std::string(300, 'x').c_str()), StatusCode::SUCCESS);
  const StatusNotification failure = AsNotification(TakeRequests().at(0));
  EXPECT_EQ(failure.ok, 0u);
  EXPECT_EQ(std::string(failure.message.data()), std::string(127, 'x'));

  // The watchdog goes away: the heartbeat thread ends and says so.
  ASSERT_EQ(client_->StartHeartbeat(20), StatusCode::SUCCESS);
  watchdog_.Close();
  for (int i = 0; i < 100 && client_->HeartbeatStatus() == StatusCode::SUCCESS; ++i) {
    usleep(20 * 1000);
  }
  EXPECT_NE(client_->HeartbeatStatus(), StatusCode::SUCCESS);
  EXPECT_NE(client_->GetWatchdogPid(nullptr), StatusCode::SUCCESS);
}

}  // namespace
