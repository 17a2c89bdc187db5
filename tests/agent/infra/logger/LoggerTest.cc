#include "agent/src/infra/logger/Logger.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "agent/src/infra/logger/LoggerUtils.h"
#include "common/Clock.h"
#include "tests/agent/infra/logger/LogLines.h"
#include "tests/support/TempDir.h"

namespace {

const std::string kMarker = LoggerUtils::kLogFileEndMarker;
const std::string kDefaultHeader = Header("DefaultAccountID");

// Wall clock at kWallClock and 1234 s since boot, whatever the real time.
class FixedClock final : public Clock {
 public:
  int GetTime(clockid_t clockId, timespec* out) override {
    *out = timespec{clockId == CLOCK_MONOTONIC ? 1234 : kWallClock, 0};
    return 0;
  }
  void SleepMsec(uint32_t) override {}
};

void Log(LoggerLevel level, const std::string& text,
         uint32_t component = LOGGER_COMPONENT_WATCHDOG) {
  PrintLogLine(component, "Fn", level, "watchdog.c", 486, "%s", text.c_str());
}

class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetTimeZone("UTC");
    previousClock_ = InstallClock(&clock_);
  }
  void TearDown() override {
    Logger::DestroyLogger();
    Logger::SetHumanReadableFormat(0);
    InstallClock(previousClock_);
  }

  // A disabled console and, unless limit is 0, a file target; enabled unless told not to.
  void InitLogger(uint32_t limit = 25000, bool enableFile = true) {
    auto console = LoggerConfig::CreateConsoleLoggerConfig();
    auto file = LoggerConfig::CreateFileLoggerConfig(dir_.path().c_str(), "wd", limit, 2, 77);
    ASSERT_TRUE(Logger::InitLogger(console.get(), limit == 0 ? nullptr : file.get(), nullptr));
    LoggerConfig::DestroyConfig(&file);
    EXPECT_EQ(file, nullptr);
    if (limit != 0 && enableFile) {
      ASSERT_TRUE(Logger::SetLoggerTargetEnableState(Logger::kFileTarget, 1));
    }
  }
  std::string LogFile(uint32_t generation = 0) const {
    return ReadWholeFile(dir_.File("wd_77_" + std::to_string(generation) + ".0"));
  }

  FixedClock clock_;
  Clock* previousClock_ = nullptr;
  TempDir dir_;
};

TEST_F(LoggerTest, LinesAreDroppedBeforeInitialisationWhileDisabledAndAfterDestruction) {
  Log(LoggerLevel::FATAL, "before");
  EXPECT_FALSE(ShouldLogComponent(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::FATAL));
  InitLogger(25000, false);
  Log(LoggerLevel::FATAL, "while disabled");
  EXPECT_NE(access(dir_.File("wd_77_0.0").c_str(), F_OK), 0);
  ASSERT_TRUE(Logger::SetLoggerTargetEnableState(Logger::kFileTarget, 1));
  Logger::DestroyLogger();
  Log(LoggerLevel::FATAL, "after");
  EXPECT_FALSE(ShouldLogComponent(LOGGER_COMPONENT_WATCHDOG, LoggerLevel::FATAL));
  EXPECT_EQ(LogFile(), kDefaultHeader);
}

TEST_F(LoggerTest, LinesAreExactJsonEscapedCutAt1024AndDroppedAt4096) {
  InitLogger();
  PrintLogLine(LOGGER_COMPONENT_WATCHDOG, "Fn", LoggerLevel::INFO, "watchdog.c", 486,
               "Entity '%s' is %s(%d).\n", "a\"b\\c\td\x01\xC3\xA9", "failed", 2);
  const std::string message(1000, 'm');
  const size_t rest = JsonLine("INFO", message, "").size();
  const std::string longest(4095 - rest, 'p');
  for (const std::string& file : {longest + "p", longest}) {  // a line of 4096 bytes is dropped
    PrintLogLine(LOGGER_COMPONENT_WATCHDOG, "Fn", LoggerLevel::INFO, file.c_str(), 486, "%s",
                 message.c_str());
  }
  Log(LoggerLevel::INFO, std::string(1100, 'm'));
  EXPECT_EQ(LogFile(), kDefaultHeader +
                           JsonLine("INFO", "Entity 'a'b/c d \xC3\xA9' is failed(2). ") +
                           JsonLine("INFO", message, longest) +
                           JsonLine("INFO", std::string(1012, 'm') + " (trunc)..."));
}

TEST_F(LoggerTest, ComponentLevelsDecideWhatIsWritten) {
  InitLogger();
  const uint32_t refused[][2] = {{0, 5}, {166, 5}, {372, 0}, {LOGGER_COMPONENT_MAIN, 6}};
  for (const auto& [row, level] : refused) Logger::UpdateSingleCompLogLevel(row, level);
  for (uint32_t row = 0; row <= kNumConfigurationVars; ++row) {  // defaults: INFO, SNIFFER DEBUG
    const bool atZero = row < kFirstLogComponent || row == LOGGER_COMPONENT_SNIFFER;
    EXPECT_EQ(ShouldLogComponent(row, LoggerLevel::VERBOSE), atZero) << row;
    EXPECT_EQ(ShouldLogComponent(row, LoggerLevel::FATAL), row < kNumConfigurationVars) << row;
  }
  Logger::UpdateSingleCompLogLevel(LOGGER_COMPONENT_SHELL_ACCESS_BLOCKING_CHAIN_LINK, 0);
  EXPECT_TRUE(ShouldLogComponent(371, LoggerLevel::DEBUG));
  Logger::UpdateSingleCompLogLevel(LOGGER_COMPONENT_WATCHDOG, 5);
  Log(LoggerLevel::ERROR, "below FATAL");
  Log(LoggerLevel::DEBUG, "sniffer debug", LOGGER_COMPONENT_SNIFFER);
  Log(LoggerLevel::FATAL, "no such component", 372);
  Log(LoggerLevel::FATAL, "fatal");
  PrintLogLineWOLevelCheck(372, "Fn", LoggerLevel::INVALID, "watchdog.c", 486, "unchecked");
  EXPECT_EQ(LogFile(), kDefaultHeader + JsonLine("DEBUG", "sniffer debug") +
                           JsonLine("FATAL", "fatal") + JsonLine("N/A", "unchecked"));
}

TEST_F(LoggerTest, AccountIdUpTo127IsKeptAndOnlyIdsThatFitTheHeaderReachTheFiles) {
  InitLogger();
  const std::string widest(81, 'w');
  const std::string longest(127, 'l');
  EXPECT_TRUE(Logger::SetAccountId(widest.c_str()));
  EXPECT_FALSE(Logger::SetAccountId(longest.c_str()));
  EXPECT_STREQ(Logger::GetAccountIdString(), longest.c_str());
  EXPECT_FALSE(Logger::SetAccountId(std::string(128, 't').c_str()));
  EXPECT_FALSE(Logger::SetAccountId(nullptr));
  EXPECT_STREQ(Logger::GetAccountIdString(), longest.c_str());
  EXPECT_EQ(LogFile(), Header(widest));
}

TEST_F(LoggerTest, GenerationRunsModuloThreeAndRenamesTheFiles) {
  InitLogger();
  ASSERT_TRUE(Logger::SetAccountId("acct-1"));
  Log(LoggerLevel::INFO, "first");
  EXPECT_EQ(Logger::LoggerGenerationInc(), 0u);
  Log(LoggerLevel::INFO, "second");
  EXPECT_EQ(LogFile(0), Header("acct-1") + JsonLine("INFO", "first") + kMarker);
  EXPECT_EQ(LogFile(1), Header("acct-1") + JsonLine("INFO", "second"));
  for (uint32_t previous : {1u, 2u, 0u}) EXPECT_EQ(Logger::LoggerGenerationInc(), previous);
  Log(LoggerLevel::INFO, "third");
  EXPECT_EQ(LogFile(1), Header("acct-1") + JsonLine("INFO", "third"));
}

TEST_F(LoggerTest, NoUdpTargetCanBeConfiguredAndTryingClearsTheSlots) {
  auto udp = LoggerConfig::CreateUdpLoggerConfig(0x7F000001u, 5140);
  auto console = LoggerConfig::CreateConsoleLoggerConfig();
  EXPECT_FALSE(Logger::InitLogger(console.get(), nullptr, udp.get()));
  EXPECT_FALSE(Logger::SetLoggerTargetEnableState(Logger::kConsoleTarget, 1));

  InitLogger();
  EXPECT_FALSE(Logger::ConfigureUdpTarget(udp.get()));
  EXPECT_TRUE(Logger::SetLoggerTargetEnableState(Logger::kFileTarget, 1));
  EXPECT_FALSE(Logger::SetLoggerTargetEnableState(3, 1));
  EXPECT_FALSE(Logger::SetLoggerTargetEnableState(Logger::kUdpTarget, 0));
  EXPECT_FALSE(Logger::ConfigureUdpTarget(nullptr));
  EXPECT_FALSE(Logger::SetLoggerTargetEnableState(Logger::kFileTarget, 1));
  EXPECT_FALSE(Logger::SetLoggerTargetEnableState(Logger::kConsoleTarget, 0));
}

TEST_F(LoggerTest, ConsoleGetsJsonLinesAndCleanTextOnlyWhenEnabled) {
  InitLogger(0);
  testing::internal::CaptureStdout();
  Log(LoggerLevel::INFO, "hidden");
  ASSERT_TRUE(Logger::SetLoggerTargetEnableState(Logger::kConsoleTarget, 1));
  Log(LoggerLevel::INFO, "shown");
  Logger::PrintCleanConsoleLog("raw \"text\"\n", 11);
  Logger::PrintCleanConsoleLog("", 0);
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), JsonLine("INFO", "shown") + "raw \"text\"\n");
}

TEST_F(LoggerTest, HumanReadableLinesKeepTheMessageAndAreDroppedRatherThanCut) {
  InitLogger();
  Logger::SetHumanReadableFormat(1);
  EXPECT_TRUE(Logger::IsHumanReadableFormatSet());
  Log(LoggerLevel::WARN, std::string(4100, 'm'));
  Log(LoggerLevel::WARN, "plain \"quoted\"\n");
  EXPECT_EQ(LogFile(), kDefaultHeader +
                           "2023-11-14 22:13:20 watchdog.c(486): WARN: "
                           "DefaultAccountID Fn plain \"quoted\"\n");
}

// The file writer logs its open failure through PrintLogLine under the logger lock.
TEST_F(LoggerTest, FileWriterFailureUnderTheLockDoesNotDeadlock) {
  EXPECT_EXIT(
      {
        alarm(10);
        InitLogger(100);
        ASSERT_EQ(mkdir(dir_.File("wd_77_0.1").c_str(), 0755), 0);  // next file cannot open
        Log(LoggerLevel::INFO, "crosses the limit and rotates");
        Log(LoggerLevel::INFO, "writer cannot open its file");
        Logger::LoggerGenerationInc();
        Log(LoggerLevel::INFO, "after recovery");
        const bool recovered = LogFile(1).find("after recovery") != std::string::npos;
        Logger::DestroyLogger();
        std::exit(recovered ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(LoggerTest, LinesFromManyThreadsNeverInterleave) {
  InitLogger(10000000);
  std::vector<std::thread> threads;
  for (char c : {'a', 'b', 'c', 'd'}) {
    threads.emplace_back([c] {
      for (int i = 0; i < 250; ++i) Log(LoggerLevel::INFO, std::string(100, c));
    });
  }
  for (auto& thread : threads) thread.join();
  const std::string written = LogFile();
  const size_t size = JsonLine("INFO", std::string(100, 'a')).size();
  ASSERT_EQ(written.size(), kDefaultHeader.size() + 1000 * size);
  for (size_t at = kDefaultHeader.size(); at < written.size(); at += size) {
    ASSERT_EQ(written.substr(at, size), JsonLine("INFO", std::string(100, written[at + size - 5])));
  }
}

}  // namespace
