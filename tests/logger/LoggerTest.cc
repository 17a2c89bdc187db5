// The logger with its file target. A writer failing under the logger lock
// (a full log directory) is the fault matrix's (tests/watchdog/e2e).

#include "logger/Logger.h"

#include <gtest/gtest.h>

#include <string>

#include "logger/LoggerUtils.h"
#include "tests/logger/LogLines.h"
#include "tests/support/FakeClock.h"
#include "tests/support/TempDir.h"

namespace {

const std::string kMarker = LoggerUtils::kLogFileEndMarker;
const std::string kDefaultHeader = Header("DefaultAccountID");

void Log(LoggerLevel level, const std::string& text,
         uint32_t component = LOGGER_COMPONENT_WATCHDOG) {
  PrintLogLine(component, "Fn", level, "watchdog.c", 486, "%s", text.c_str());
}

class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override { SetTimeZone("UTC"); }
  void TearDown() override { Logger::DestroyLogger(); }

  // A disabled console and an enabled file target.
  void InitLogger() {
    auto console = LoggerConfig::CreateConsoleLoggerConfig();
    auto file = LoggerConfig::CreateFileLoggerConfig(dir_.path().c_str(), "wd", 25000, 2, 77);
    ASSERT_TRUE(Logger::InitLogger(console.get(), file.get(), nullptr));
    ASSERT_TRUE(Logger::SetLoggerTargetEnableState(Logger::kFileTarget, 1));
  }
  std::string LogFile(uint32_t generation = 0) const {
    return ReadWholeFile(dir_.File("wd_77_" + std::to_string(generation) + ".0"));
  }

  FakeClock clock_{1234 * 1000, kWallClock};  // the time of every JsonLine
  TempDir dir_;
};

TEST_F(LoggerTest, LinesAreExactJsonEscapedCutAt1024DroppedAt4096AndFollowComponentLevels) {
  InitLogger();
  testing::internal::CaptureStdout();  // the console target is there, but disabled
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
  Log(LoggerLevel::VERBOSE, "below the default INFO");
  Log(LoggerLevel::DEBUG, "sniffer debug", LOGGER_COMPONENT_SNIFFER);
  Logger::UpdateSingleCompLogLevel(LOGGER_COMPONENT_WATCHDOG, 5);
  Log(LoggerLevel::ERROR, "below FATAL");
  Log(LoggerLevel::FATAL, "no such component", 372);
  PrintLogLineWOLevelCheck(372, "Fn", LoggerLevel::INVALID, "watchdog.c", 486, "unchecked");
  EXPECT_EQ(LogFile(), kDefaultHeader +
                           JsonLine("INFO", "Entity 'a'b/c d \xC3\xA9' is failed(2). ") +
                           JsonLine("INFO", message, longest) +
                           JsonLine("INFO", std::string(1012, 'm') + " (trunc)...") +
                           JsonLine("DEBUG", "sniffer debug") + JsonLine("N/A", "unchecked"));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(LoggerTest, AccountIdsThatFitTheHeaderReachTheFilesAndGenerationsRunModuloThree) {
  InitLogger();
  const std::string longest(127, 'l');
  EXPECT_TRUE(Logger::SetAccountId("acct-1"));
  EXPECT_FALSE(Logger::SetAccountId(longest.c_str()));
  EXPECT_STREQ(Logger::GetAccountIdString(), longest.c_str()) << "kept, but not in the files";
  EXPECT_FALSE(Logger::SetAccountId(std::string(128, 't').c_str()));
  EXPECT_STREQ(Logger::GetAccountIdString(), longest.c_str());
  Log(LoggerLevel::INFO, "first");
  EXPECT_EQ(Logger::LoggerGenerationInc(), 0u);
  Log(LoggerLevel::INFO, "second");
  EXPECT_EQ(LogFile(0), Header("acct-1") + JsonLine("INFO", "first") + kMarker);
  EXPECT_EQ(LogFile(1), Header("acct-1") + JsonLine("INFO", "second"));
  for (uint32_t previous : {1u, 2u, 0u}) EXPECT_EQ(Logger::LoggerGenerationInc(), previous);
  Log(LoggerLevel::INFO, "third");
  EXPECT_EQ(LogFile(1), Header("acct-1") + JsonLine("INFO", "third"));
}

}  // namespace
