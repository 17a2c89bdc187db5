// The system-exec gateway in both modes: locally through the shell seam, and
// remotely against a real server process on the fixed socket path (this test
// runs with a private /var).

#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "agent/src/SystemExecGW.h"
#include "agent/src/infra/ipc/IpcChannel.h"
#include "common/Shell.h"
#include "tests/agent/infra/ipc/IpcTestPeer.h"
#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"

namespace {

// Records the commands and answers with a fixed return code.
class FakeShell final : public Shell {
 public:
  explicit FakeShell(int rc) : rc_(rc) { previous_ = InstallShell(this); }
  ~FakeShell() override { InstallShell(previous_); }
  int System(const char* command) override {
    commands.push_back(command);
    return rc_;
  }
  std::vector<std::string> commands;

 private:
  int rc_;
  Shell* previous_;
};

// The server side of the system-exec process, as its contract describes it.
StatusCode RunHandler(const void* data, size_t dataLen, void* reply, size_t, size_t* replyLen,
                      void*) {
  const char* command = static_cast<const char*>(data);
  *replyLen = 0;
  if (dataLen == 0 || command[dataLen - 1] != '\0' || std::strlen(command) + 1 != dataLen) {
    return StatusCode::INVALID_PARAM;
  }
  const int32_t rc = system(command);
  std::memcpy(reply, &rc, sizeof(rc));
  *replyLen = sizeof(rc);
  return StatusCode::SUCCESS;
}

StatusCode GenerationHandler(const void*, size_t, void* reply, size_t, size_t* replyLen, void*) {
  static int32_t generation = 0;
  std::memcpy(reply, &generation, sizeof(generation));
  generation = (generation + 1) % 3;
  *replyLen = sizeof(generation);
  return StatusCode::SUCCESS;
}

bool ZerosFrom(const uint8_t* record, size_t from) {
  for (size_t i = from; i < SystemExecGW::kRecordSize; ++i) {
    if (record[i] != 0) return false;
  }
  return true;
}

// SUCCESS only for component 228 at WARN in a well-formed record.
StatusCode LogLevelHandler(const void* data, size_t dataLen, void*, size_t, size_t* replyLen,
                           void*) {
  *replyLen = 0;
  int32_t fields[2];
  std::memcpy(fields, data, sizeof(fields));
  const bool ok = dataLen == SystemExecGW::kRecordSize && fields[0] == 228 && fields[1] == 3 &&
                  ZerosFrom(static_cast<const uint8_t*>(data), sizeof(fields));
  return ok ? StatusCode::SUCCESS : StatusCode::INVALID_PARAM;
}

// SUCCESS only for 79 'a's followed by zeros.
StatusCode AccountIdHandler(const void* data, size_t dataLen, void*, size_t, size_t* replyLen,
                            void*) {
  *replyLen = 0;
  const auto* record = static_cast<const uint8_t*>(data);
  const bool ok = dataLen == SystemExecGW::kRecordSize &&
                  std::string(reinterpret_cast<const char*>(record)) == std::string(79, 'a') &&
                  ZerosFrom(record, 79);
  return ok ? StatusCode::SUCCESS : StatusCode::INVALID_PARAM;
}

StatusCode PidHandler(const void*, size_t, void* reply, size_t, size_t* replyLen, void*) {
  const int32_t pid = getpid();
  std::memcpy(reply, &pid, sizeof(pid));
  *replyLen = sizeof(pid);
  return StatusCode::SUCCESS;
}

TEST(SystemExecLocalTest, BeforeInitCommandsRunHereAndControlsSucceed) {
  int32_t rc = 0;
  EXPECT_EQ(SystemExec::System("exit 3", &rc), StatusCode::SUCCESS);
  EXPECT_EQ((rc >> 8) & 0xff, 3);
  int32_t pid = -1;
  EXPECT_EQ(SystemExecGW::GetSystemExecPid(&pid), StatusCode::SUCCESS);
  EXPECT_EQ(pid, 0);
  uint32_t generation = 77;
  EXPECT_EQ(SystemExecGW::IncreaseLogGeneration(&generation), StatusCode::SUCCESS);
  EXPECT_EQ(generation, 77u);
  EXPECT_EQ(SystemExecGW::SetComponentLogLevel(228, LoggerLevel::WARN), StatusCode::SUCCESS);
  EXPECT_EQ(SystemExecGW::SetAccountId("account"), StatusCode::SUCCESS);
}

TEST(SystemExecLocalTest, FailedInitLeavesCommandsLocal) {
  LogCapture log;
  FakeClock clock;
  unlink(SystemExecGW::kSocketPath);
  EXPECT_EQ(SystemExecGW::Init(false), StatusCode::FAILURE);
  EXPECT_TRUE(log.Contains("Failed connecting to server!"));
  EXPECT_EQ(clock.SleepCalls(), 10u);

  FakeShell shell(5 << 8);
  int32_t rc = 0;
  EXPECT_EQ(SystemExec::SystemCustomTimeout("do something", &rc, 100), StatusCode::SUCCESS);
  EXPECT_EQ(shell.commands, std::vector<std::string>{"do something"});
  EXPECT_EQ(rc, 5 << 8);
  EXPECT_TRUE(
      log.Contains("Command 'do something' locally executed, system() rc 1280, exit status 5"));
}

TEST(SystemExecDeathTest, NullReturnCodePointerStopsTheProcess) {
  EXPECT_DEATH(SystemExec::System("true", nullptr), "rc != \\(\\(void \\*\\)0\\)");
}

class SystemExecRemoteTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unlink(SystemExecGW::kSocketPath);
    auto server = CreateIpcChannel(SystemExecGW::kSocketPath, SystemExecGW::kRecordSize, 4, false);
    ASSERT_NE(server, nullptr);
    server->RegisterHandler(SystemExecGW::kRunCommand, RunHandler, nullptr);
    server->RegisterHandler(SystemExecGW::kIncreaseLogGeneration, GenerationHandler, nullptr);
    server->RegisterHandler(SystemExecGW::kSetComponentLogLevel, LogLevelHandler, nullptr);
    server->RegisterHandler(SystemExecGW::kSetAccountId, AccountIdHandler, nullptr);
    server->RegisterHandler(SystemExecGW::kGetPid, PidHandler, nullptr);
    serverPid_ = StartServer(*server);
    ASSERT_GT(serverPid_, 0);
    ASSERT_EQ(SystemExecGW::Init(false), StatusCode::SUCCESS);
  }
  void TearDown() override {
    SystemExecGW::Init(true);
    KillServer(serverPid_);
  }

  LogCapture log_;
  // Anything run in this process would show here.
  FakeShell shell_{99 << 8};
  pid_t serverPid_ = -1;
};

TEST_F(SystemExecRemoteTest, CommandsRunInTheServerProcess) {
  int32_t rc = 0;
  EXPECT_EQ(SystemExec::System("exit 3", &rc), StatusCode::SUCCESS);
  EXPECT_EQ((rc >> 8) & 0xff, 3);
  EXPECT_TRUE(shell_.commands.empty());
  EXPECT_TRUE(
      log_.Contains("Command 'exit 3' remotely executed, IPC ret SUCCESS, system() rc 768, "
                    "exit status 3"));
  int32_t pid = 0;
  EXPECT_EQ(SystemExecGW::GetSystemExecPid(&pid), StatusCode::SUCCESS);
  EXPECT_EQ(pid, serverPid_);
}

TEST_F(SystemExecRemoteTest, ControlsTravelInTheirRecords) {
  uint32_t generation = 77;
  EXPECT_EQ(SystemExecGW::IncreaseLogGeneration(&generation), StatusCode::SUCCESS);
  EXPECT_EQ(generation, 0u);
  EXPECT_EQ(SystemExecGW::IncreaseLogGeneration(&generation), StatusCode::SUCCESS);
  EXPECT_EQ(generation, 1u);

  EXPECT_EQ(SystemExecGW::SetComponentLogLevel(228, LoggerLevel::WARN), StatusCode::SUCCESS);
  EXPECT_TRUE(log_.Contains("Log level for component 228 set to WARN (3), ret SUCCESS"));
  EXPECT_EQ(SystemExecGW::SetComponentLogLevel(228, LoggerLevel::ERROR), StatusCode::INVALID_PARAM);

  EXPECT_EQ(SystemExecGW::SetAccountId(std::string(100, 'a').c_str()), StatusCode::SUCCESS);
  EXPECT_TRUE(log_.Contains("Account ID was set to " + std::string(79, 'a') + ", ret SUCCESS"));
  EXPECT_EQ(SystemExecGW::SetAccountId("short"), StatusCode::INVALID_PARAM);
  EXPECT_TRUE(
      log_.Contains("Failed sending a request to system exec. returned INVALID_PARAM (10)"));
}

TEST_F(SystemExecRemoteTest, SlowCommandTimesOutAndIsNotRetried) {
  int32_t rc = 0;
  EXPECT_EQ(SystemExec::SystemCustomTimeout("sleep 0.2", &rc, 20), StatusCode::TIMEOUT);
  EXPECT_TRUE(shell_.commands.empty());
  EXPECT_FALSE(log_.Contains("trying to reconnect"));
}

}  // namespace
