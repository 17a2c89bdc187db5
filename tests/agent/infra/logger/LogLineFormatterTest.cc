#include "agent/src/infra/logger/LogLineFormatter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/agent/infra/logger/ScopedTimeZone.h"

namespace {

using namespace LogLineFormatter;

int32_t Json(char* buffer, size_t capacity, const char* sourceFile, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
int32_t Json(char* buffer, size_t capacity, const char* sourceFile, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int32_t result = FormatLogLineVaArgsAsJson(buffer, capacity, "INFO", sourceFile, 486,
                                                   kWallClock, 1234, "Fn", format, args);
  va_end(args);
  return result;
}

std::string JsonLine(const std::string& message) {
  return "{\"level\": \"INFO\", \"timestamp\": 1234, \"metadata\" : {\"router_timestamp\" : "
         "\"2023-11-14 22:13:20\", \"c_file\": \"watchdog.c\", \"line\": 486 }, \"message\": \"" +
         message + "\"},\n";
}

class LogLineFormatterTest : public ::testing::Test {
 protected:
  ScopedTimeZone utc_{"UTC"};
  char buffer_[4096];
};

TEST_F(LogLineFormatterTest, JsonLineHasTheFixedIrregularLayoutAndEscapedMessage) {
  const int32_t length =
      Json(buffer_, sizeof(buffer_), "watchdog.c", "a\"b\\c\td%s\n", "\x01\xC3\xA9");
  const std::string expected = JsonLine("a'b/c d \xC3\xA9 ");
  EXPECT_EQ(buffer_, expected);
  EXPECT_EQ(length, static_cast<int32_t>(expected.size()));
}

TEST_F(LogLineFormatterTest, JsonMessageIsCutAt1024WithTheTruncMark) {
  const std::string longText(1100, 'm');
  Json(buffer_, sizeof(buffer_), "watchdog.c", "%s", longText.c_str());
  EXPECT_EQ(buffer_, JsonLine(std::string(1012, 'm') + " (trunc)..."));
}

TEST_F(LogLineFormatterTest, JsonLineThatWouldReachTheCapacityIsDropped) {
  const std::string path(3000, 'p');
  const std::string message(1000, 'm');
  char big[8192];
  const int32_t full = Json(big, sizeof(big), path.c_str(), "%s", message.c_str());
  ASSERT_GT(full, 0);
  EXPECT_EQ(Json(big, static_cast<size_t>(full), path.c_str(), "%s", message.c_str()), -1);
  EXPECT_EQ(Json(big, static_cast<size_t>(full) + 1, path.c_str(), "%s", message.c_str()), full);
  const std::string longPath(3100, 'p');
  EXPECT_EQ(Json(buffer_, sizeof(buffer_), longPath.c_str(), "%s", message.c_str()), -1);
}

TEST_F(LogLineFormatterTest, DateTextIsLocalTime) {
  ScopedTimeZone eastOfUtc("XXX-2");
  char date[kDateTimeSize];
  EXPECT_EQ(FormatDateTime(date, sizeof(date), kWallClock), 19u);
  EXPECT_STREQ(date, "2023-11-15 00:13:20");
}

TEST_F(LogLineFormatterTest, CachedDateFollowsTheSecondAndItsInvalidation) {
  DateTimeCache cache;
  char date[kDateTimeSize];
  ASSERT_EQ(cache.Format(date, sizeof(date), kWallClock), 19u);
  EXPECT_STREQ(date, "2023-11-14 22:13:20");
  EXPECT_EQ(cache.Format(date, sizeof(date), kWallClock + 1), 19u);
  EXPECT_STREQ(date, "2023-11-14 22:13:21");
  EXPECT_EQ(cache.Format(date, 19, kWallClock + 1), 0u) << "never cut into a short buffer";
  ScopedTimeZone eastOfUtc("XXX-2");
  cache.Invalidate();
  cache.Format(date, sizeof(date), kWallClock + 1);
  EXPECT_STREQ(date, "2023-11-15 00:13:21");
}

TEST_F(LogLineFormatterTest, HeaderIsAlways101BytesWithNewlineAtTheEnd) {
  EXPECT_EQ(FormatAccountIDHeaderLine(buffer_, sizeof(buffer_), "DefaultAccountID"), 101);
  EXPECT_EQ(std::string(buffer_),
            "{\"account_id\": \"DefaultAccountID\"}," + std::string(65, ' ') + "\n");
  const std::string widest(81, 'w');
  EXPECT_EQ(FormatAccountIDHeaderLine(buffer_, sizeof(buffer_), widest.c_str()), 101);
  EXPECT_EQ(std::string(buffer_), "{\"account_id\": \"" + widest + "\"},\n");
}

TEST_F(LogLineFormatterTest, HeaderRefusesSmallBuffersAndIdsWiderThanTheLine) {
  char exact[101];
  EXPECT_EQ(FormatAccountIDHeaderLine(exact, sizeof(exact), "DefaultAccountID"), -1);
  char guarded[200];
  std::memset(guarded, '#', sizeof(guarded));
  const std::string tooWide(82, 'w');
  EXPECT_EQ(FormatAccountIDHeaderLine(guarded, 102, tooWide.c_str()), -1);
  EXPECT_EQ(FormatAccountIDHeaderLine(guarded, sizeof(guarded), std::string(127, 'w').c_str()), -1);
  EXPECT_EQ(guarded[100], '#');
}

}  // namespace
