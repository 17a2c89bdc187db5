#include "agent/src/infra/logger/Logger.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agent/src/infra/logger/LoggerUtils.h"
#include "common/Clock.h"
#include "tests/agent/infra/logger/ScopedTimeZone.h"
#include "tests/support/TempDir.h"

namespace {

const std::string kMarker = LoggerUtils::kLogFileEndMarker;

// Wall clock at kWallClock and 1234 s since boot, whatever the real time.
class FixedClock final : public Clock {
 public:
  int GetTime(clockid_t clockId, timespec* out) override {
    *out = timespec{clockId == CLOCK_MONOTONIC ? 1234 : kWallClock, 0};
    return 0;
  }
  void SleepMsec(uint32_t) override {}
};

std::string Header(const std::string& accountId) {
  return "{\"account_id\": \"" + accountId + "\"}," + std::string(81 - accountId.size(), ' ') +
         "\n";
}

std::string JsonLine(const char* level, const std::string& message) {
  return std::string("{\"level\": \"") + level +
         "\", \"timestamp\": 1234, \"metadata\" : {\"router_timestamp\" : \"2023-11-14 "
         "22:13:20\", \"c_file\": \"watchdog.c\", \"line\": 486 }, \"message\": \"" +
         message + "\"},\n";
}

void Log(uint32_t component, LoggerLevel level, const char* text) {
  PrintLogLine(component, "Fn", level, "watchdog.c", 486, "%s", text);
}

class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previousClock_ = InstallClock(&clock_);
    oldMask_ = umask(022);
  }
  void TearDown() override {
    Logger::DestroyLogger();
    Logger::SetHumanReadableFormat(0);
    InstallClock(previousClock_);
    umask(oldMask_);
  }

  // Logger with a disabled console and, unless limit is 0, an enabled file target.
  void InitLogger(uint32_t limit = 25000) {
    auto console = LoggerConfig::CreateConsoleLoggerConfig();
    auto file = LoggerConfig::CreateFileLoggerConfig(dir_.path().c_str(), "wd", limit, 2, 77);
    ASSERT_TRUE(Logger::InitLogger(console.get(), limit == 0 ? nullptr : file.get(), nullptr));
    LoggerConfig::DestroyConfig(&file);
    EXPECT_EQ(file, nullptr);
    if (limit != 0) {
      ASSERT_TRUE(Logger::SetLoggerTargetEnableState(Logger::kFileTarget, 1));
    }
  }
  std::string LogFile(uint32_t generation = 0, uint32_t index = 0) const {
    return ReadWholeFile(
        dir_.File("wd_77_" + std::to_string(generation) + "." + std::to_string(index)));
  }

  ScopedTimeZone utc_{"UTC"};
  FixedClock clock_;
  Clock* previousClock_ = nullptr;
  mode_t oldMask_ = 0;
  TempDir dir_;
};

TEST_F(LoggerTest, LinesBeforeInitialisationAndAfterDestructionAreDropped) {
  Log(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::FATAL, "nobody hears this");
  EXPECT_FALSE(ShouldLogComponent(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::FATAL));
  InitLogger();
  Logger::DestroyLogger();
  Log(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::FATAL, "nor this");
  EXPECT_FALSE(ShouldLogComponent(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::FATAL));
  EXPECT_EQ(LogFile(), Header("DefaultAccountID"));
}

TEST_F(LoggerTest, TargetsStayDisabledUntilEnabledThenGetHeaderAndExactLines) {
  auto file = LoggerConfig::CreateFileLoggerConfig(dir_.path().c_str(), "wd", 25000, 2, 77);
  ASSERT_TRUE(Logger::InitLogger(nullptr, file.get(), nullptr));
  Log(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::ERROR, "while disabled");
  EXPECT_NE(access(dir_.File("wd_77_0.0").c_str(), F_OK), 0);

  ASSERT_TRUE(Logger::SetLoggerTargetEnableState(Logger::kFileTarget, 1));
  PrintLogLine(LOGGER_COMPONENT_WATCHDOG, "Fn", LoggerLevel::INFO, "watchdog.c", 486,
               "Entity '%s' status is %s(%d).\n", "UserAgent \"ua\"", "failed", 2);
  EXPECT_EQ(LogFile(), Header("DefaultAccountID") +
                           JsonLine("INFO", "Entity 'UserAgent 'ua'' status is failed(2). "));
}

TEST_F(LoggerTest, LineWhoseJsonWouldReachTheBufferSizeIsNotWritten) {
  InitLogger();
  const std::string path(3100, 'p');
  const std::string message(1000, 'm');
  PrintLogLine(LOGGER_COMPONENT_WATCHDOG, "Fn", LoggerLevel::INFO, path.c_str(), 486, "%s",
               message.c_str());
  EXPECT_EQ(LogFile(), Header("DefaultAccountID"));
  Log(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::INFO, std::string(1100, 'm').c_str());
  EXPECT_EQ(LogFile(),
            Header("DefaultAccountID") + JsonLine("INFO", std::string(1012, 'm') + " (trunc)..."));
}

TEST_F(LoggerTest, ComponentLevelsDecideWhatIsWritten) {
  InitLogger();
  Log(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::VERBOSE, "below INFO");
  Log(LOGGER_COMPONENT_SNIFFER, LoggerLevel::DEBUG, "sniffer debug");
  Log(372, LoggerLevel::FATAL, "no such component");
  Logger::UpdateSingleCompLogLevel(LOGGER_COMPONENT_WATCHDOG, 5);
  Log(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::ERROR, "below FATAL");
  Log(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::FATAL, "fatal");
  EXPECT_EQ(LogFile(), Header("DefaultAccountID") + JsonLine("DEBUG", "sniffer debug") +
                           JsonLine("FATAL", "fatal"));

  EXPECT_FALSE(ShouldLogComponent(372, LoggerLevel::FATAL));
  EXPECT_FALSE(ShouldLogComponent(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::ERROR));
  Logger::UpdateSingleCompLogLevel(0, 5);  // "hostname" is no component: refused
  EXPECT_TRUE(ShouldLogComponent(0, LoggerLevel::DEBUG));
  Logger::UpdateSingleCompLogLevel(LOGGER_COMPONENT_MAIN, 6);
  EXPECT_TRUE(ShouldLogComponent(LOGGER_COMPONENT_MAIN, LoggerLevel::INFO));
}

TEST_F(LoggerTest, UncheckedLineSkipsTheLevelTestAndNamesBadLevelsNA) {
  InitLogger();
  PrintLogLineWOLevelCheck(372, "Fn", static_cast<LoggerLevel>(6), "watchdog.c", 486, "odd");
  EXPECT_EQ(LogFile(), Header("DefaultAccountID") + JsonLine("N/A", "odd"));
}

TEST_F(LoggerTest, AccountIdUpTo127IsKeptAndOnlyIdsThatFitTheHeaderReachTheFiles) {
  InitLogger();
  const std::string widest(81, 'w');
  EXPECT_TRUE(Logger::SetAccountId(widest.c_str()));
  EXPECT_EQ(LogFile(), Header(widest));

  const std::string longest(127, 'l');
  EXPECT_FALSE(Logger::SetAccountId(longest.c_str()));
  EXPECT_STREQ(Logger::GetAccountIdString(), longest.c_str());
  EXPECT_EQ(LogFile(), Header(widest));

  const std::string tooLong(128, 't');
  EXPECT_FALSE(Logger::SetAccountId(tooLong.c_str()));
  EXPECT_STREQ(Logger::GetAccountIdString(), longest.c_str());
  EXPECT_FALSE(Logger::SetAccountId(nullptr));
}

TEST_F(LoggerTest, GenerationRunsModuloThreeAndRenamesTheFiles) {
  InitLogger();
  ASSERT_TRUE(Logger::SetAccountId("acct-1"));
  Log(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::INFO, "first");
  EXPECT_EQ(Logger::LoggerGenerationInc(), 0u);
  Log(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::INFO, "second");
  EXPECT_EQ(LogFile(0), Header("acct-1") + JsonLine("INFO", "first") + kMarker);
  EXPECT_EQ(LogFile(1), Header("acct-1") + JsonLine("INFO", "second"));

  EXPECT_EQ(Logger::LoggerGenerationInc(), 1u);
  EXPECT_EQ(Logger::LoggerGenerationInc(), 2u);
  EXPECT_EQ(Logger::LoggerGenerationInc(), 0u);
  Log(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::INFO, "third");
  EXPECT_EQ(LogFile(1), Header("acct-1") + JsonLine("INFO", "third"));
}

TEST_F(LoggerTest, UdpConfigurationMakesInitialisationFail) {
  auto console = LoggerConfig::CreateConsoleLoggerConfig();
  auto udp = LoggerConfig::CreateUdpLoggerConfig(0x7F000001u, 5140);
  EXPECT_FALSE(Logger::InitLogger(console.get(), nullptr, udp.get()));
  EXPECT_FALSE(ShouldLogComponent(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::FATAL));
  EXPECT_FALSE(Logger::SetLoggerTargetEnableState(Logger::kConsoleTarget, 1));
}

TEST_F(LoggerTest, ConfigureUdpTargetNeverConfiguresOneAndClearsTheSlots) {
  InitLogger();
  auto udp = LoggerConfig::CreateUdpLoggerConfig(0x7F000001u, 5140);
  EXPECT_FALSE(Logger::ConfigureUdpTarget(udp.get()));
  EXPECT_TRUE(Logger::SetLoggerTargetEnableState(Logger::kFileTarget, 1));
  EXPECT_FALSE(Logger::ConfigureUdpTarget(nullptr));
  EXPECT_FALSE(Logger::SetLoggerTargetEnableState(Logger::kFileTarget, 1));
  EXPECT_FALSE(Logger::SetLoggerTargetEnableState(Logger::kConsoleTarget, 1));
}

TEST_F(LoggerTest, EnableStateRefusesBadIndexAndAbsentTarget) {
  InitLogger(0);
  EXPECT_FALSE(Logger::SetLoggerTargetEnableState(3, 1));
  EXPECT_FALSE(Logger::SetLoggerTargetEnableState(Logger::kFileTarget, 1));
  EXPECT_FALSE(Logger::SetLoggerTargetEnableState(Logger::kUdpTarget, 0));
  EXPECT_TRUE(Logger::SetLoggerTargetEnableState(Logger::kConsoleTarget, 0));
}

TEST_F(LoggerTest, ConsoleGetsJsonLinesAndCleanTextOnlyWhenEnabled) {
  InitLogger(0);
  testing::internal::CaptureStdout();
  Log(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::INFO, "hidden");
  ASSERT_TRUE(Logger::SetLoggerTargetEnableState(Logger::kConsoleTarget, 1));
  Log(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::INFO, "shown");
  Logger::PrintCleanConsoleLog("raw \"text\"\n", 11);
  Logger::PrintCleanConsoleLog("", 0);
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), JsonLine("INFO", "shown") + "raw \"text\"\n");
}

// Unlike a JSON line, a human-readable line whose message must be cut is dropped.
TEST_F(LoggerTest, HumanReadableLinesKeepTheMessageAndAreDroppedRatherThanCut) {
  InitLogger();
  Logger::SetHumanReadableFormat(1);
  EXPECT_TRUE(Logger::IsHumanReadableFormatSet());
  Log(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::WARN, std::string(4100, 'm').c_str());
  Log(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::WARN, "plain \"quoted\"\n");
  EXPECT_EQ(
      LogFile(),
      Header("DefaultAccountID") +
          "2023-11-14 22:13:20 watchdog.c(486): WARN: DefaultAccountID Fn plain \"quoted\"\n");
}

// The file writer logs its open failures through PrintLogLine while the file
// target writes under the logger lock: such a nested line must be dropped, not
// wait forever for the lock its own thread holds.
TEST_F(LoggerTest, FileWriterFailureUnderTheLockDoesNotDeadlock) {
  EXPECT_EXIT(
      {
        alarm(10);
        InitLogger(100);
        ASSERT_EQ(mkdir(dir_.File("wd_77_0.1").c_str(), 0755), 0);  // next file cannot open
        Log(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::INFO, "crosses the limit and rotates");
        Log(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::INFO, "writer cannot open its file");
        Logger::LoggerGenerationInc();
        Log(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::INFO, "after recovery");
        const bool recovered = LogFile(1).find("after recovery") != std::string::npos;
        Logger::DestroyLogger();
        std::exit(recovered ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(LoggerTest, LinesFromManyThreadsNeverInterleave) {
  InitLogger(10000000);
  constexpr int kThreads = 4;
  constexpr int kLinesEach = 250;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      const std::string text = "thread " + std::to_string(t) + std::string(100, 'a' + t);
      for (int i = 0; i < kLinesEach; ++i)
        Log(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::INFO, text.c_str());
    });
  }
  for (auto& thread : threads) thread.join();
  std::istringstream lines(LogFile());
  std::string line;
  std::getline(lines, line);
  int counts[kThreads] = {};
  int total = 0;
  while (std::getline(lines, line)) {
    ++total;
    for (int t = 0; t < kThreads; ++t) {
      const std::string text = "thread " + std::to_string(t) + std::string(100, 'a' + t);
      if (line + "\n" == JsonLine("INFO", text)) ++counts[t];
    }
  }
  EXPECT_EQ(total, kThreads * kLinesEach);
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(counts[t], kLinesEach) << t;
}

}  // namespace
