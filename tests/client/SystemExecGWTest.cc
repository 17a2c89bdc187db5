// The system-exec gateway in both modes: locally through the shell seam, and
// remotely against a real server process on the fixed socket path (this test
// runs with a private /var).

#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client/SystemExecGW.h"
#include "common/Shell.h"
#include "ipc/IpcChannel.h"
#include "tests/ipc/IpcTestPeer.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

constexpr const char* kLastRequest = "/var/last_request";

// Records the commands; each one exits with 5.
struct FakeShell final : Shell {
  int System(const char* command) override {
    commands.push_back(command);
    return 5 << 8;
  }
  std::vector<std::string> commands;
  const ScopedSeams<Shell> installed{this};
};

// The system-exec process's side of every command: keeps the request data in
// kLastRequest and replies with 4 bytes where the command has a reply.
StatusCode Serve(const void* data, size_t dataLen, void* reply, size_t, size_t* replyLen,
                 void* context) {
  static int32_t generation = 0;
  std::ofstream(kLastRequest).write(static_cast<const char*>(data), dataLen);
  const intptr_t id = reinterpret_cast<intptr_t>(context);
  const int32_t value = id == SystemExecGW::kRunCommand ? system(static_cast<const char*>(data))
                        : id == SystemExecGW::kGetPid   ? getpid()
                                                        : generation++;
  std::memcpy(reply, &value, sizeof(value));
  *replyLen = id == SystemExecGW::kSetComponentLogLevel || id == SystemExecGW::kSetAccountId
                  ? 0
                  : sizeof(value);
  return StatusCode::SUCCESS;
}

TEST(SystemExecLocalTest, WithoutAConnectedServerCommandsRunHere) {
  LogCapture log;
  int32_t rc = 0;
  FakeClock clock;
  unlink(SystemExecGW::kSocketPath);
  EXPECT_EQ(SystemExecGW::Init(false), StatusCode::FAILURE);
  EXPECT_EQ(clock.SleepCalls(), 10u);
  FakeShell shell;
  EXPECT_EQ(SystemExec::SystemCustomTimeout("do something", &rc, 100), StatusCode::SUCCESS);
  EXPECT_EQ(shell.commands, std::vector<std::string>{"do something"});
  EXPECT_TRUE(
      log.Contains("Command 'do something' locally executed, system() rc 1280, exit status 5"));
}

class SystemExecRemoteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unlink(SystemExecGW::kSocketPath);
    auto server = CreateIpcChannel(SystemExecGW::kSocketPath, SystemExecGW::kRecordSize, 4, false);
    for (intptr_t id = SystemExecGW::kRunCommand; id <= SystemExecGW::kGetPid; ++id) {
      server->RegisterHandler(static_cast<int32_t>(id), Serve, reinterpret_cast<void*>(id));
    }
    serverPid_ = StartServer(*server);
    ASSERT_GT(serverPid_, 0);
    ASSERT_EQ(SystemExecGW::Init(false), StatusCode::SUCCESS);
  }
  void TearDown() override {
    SystemExecGW::Init(true);
    KillServer(&serverPid_);
  }

  LogCapture log_;
  FakeShell shell_;  // anything run in this process would show here
  pid_t serverPid_ = -1;
};

TEST_F(SystemExecRemoteTest, EveryOperationIsServedByTheServerProcessUntilItGoesAway) {
  int32_t rc = 0;
  EXPECT_EQ(SystemExec::System("exit 3", &rc), StatusCode::SUCCESS);
  EXPECT_EQ(ReadWholeFile(kLastRequest), std::string("exit 3", 7));
  EXPECT_EQ(WEXITSTATUS(rc), 3);
  EXPECT_TRUE(shell_.commands.empty());
  int32_t pid = 0;
  EXPECT_EQ(SystemExecGW::GetSystemExecPid(&pid), StatusCode::SUCCESS);
  EXPECT_EQ(pid, serverPid_);
  uint32_t generation = 77;
  EXPECT_EQ(SystemExecGW::IncreaseLogGeneration(&generation), StatusCode::SUCCESS);
  EXPECT_EQ(SystemExecGW::IncreaseLogGeneration(&generation), StatusCode::SUCCESS);
  EXPECT_EQ(generation, 1u);
  // The controls travel in fixed 1028-byte records, zeros after their fields.
  auto expectRecord = [](const std::string& fields) {
    std::string record(SystemExecGW::kRecordSize, '\0');
    EXPECT_EQ(ReadWholeFile(kLastRequest), record.replace(0, fields.size(), fields));
  };
  EXPECT_EQ(SystemExecGW::SetComponentLogLevel(228, LoggerLevel::WARN), StatusCode::SUCCESS);
  const int32_t fields[] = {228, 3};
  expectRecord(std::string(reinterpret_cast<const char*>(fields), sizeof(fields)));
  EXPECT_EQ(SystemExecGW::SetAccountId(std::string(100, 'a').c_str()), StatusCode::SUCCESS);
  expectRecord(std::string(79, 'a'));

  // Failures come back as they are: a restarted system-exec process leaves
  // the gateway broken, with no retries.
  EXPECT_EQ(SystemExec::SystemCustomTimeout("sleep 0.2", &rc, 20), StatusCode::TIMEOUT);
  KillServer(&serverPid_);
  EXPECT_EQ(SystemExecGW::SetAccountId("id"), StatusCode::FAILURE);
  EXPECT_TRUE(shell_.commands.empty());
  EXPECT_FALSE(log_.Contains("trying to reconnect"));
}

}  // namespace
