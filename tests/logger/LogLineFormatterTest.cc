#include "logger/LogLineFormatter.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>

#include "tests/logger/LogLines.h"

namespace {

using namespace LogLineFormatter;

class LogLineFormatterTest : public ::testing::Test {
 protected:
  void SetUp() override { SetTimeZone("UTC"); }
  char buffer_[200];
};

int32_t Json(char* buffer, int line, long monotonic, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
int32_t Json(char* buffer, int line, long monotonic, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int32_t length = FormatLogLineVaArgsAsJson(buffer, 200, "WARN", nullptr, line, kWallClock,
                                                   monotonic, "Fn", format, args);
  va_end(args);
  return length;
}

// The line is built piece by piece: its numbers and a missing file read as printf writes them.
TEST_F(LogLineFormatterTest, JsonNumbersAndMissingFileReadAsPrintfWritesThem) {
  const struct {
    int line;
    long monotonic;
  } cases[] = {{0, 0}, {INT_MIN, LONG_MIN}, {INT_MAX, LONG_MAX}};
  for (const auto& c : cases) {
    char expected[200];
    std::snprintf(expected, sizeof(expected),
                  "{\"level\": \"WARN\", \"timestamp\": %ld, \"metadata\" : {\"router_timestamp\" "
                  ": \"2023-11-14 22:13:20\", \"c_file\": \"(null)\", \"line\": %d }, "
                  "\"message\": \"m\"},\n",
                  c.monotonic, c.line);
    EXPECT_EQ(Json(buffer_, c.line, c.monotonic, "m"), static_cast<int32_t>(std::strlen(expected)));
    EXPECT_STREQ(buffer_, expected);
  }
}

TEST_F(LogLineFormatterTest, CachedDateFollowsTheZoneAndTheHeaderIsNeverCut) {
  DateTimeCache cache;
  char date[kDateTimeSize];
  ASSERT_EQ(cache.Format(date, sizeof(date), kWallClock + 1), 19u);
  EXPECT_STREQ(date, "2023-11-14 22:13:21");
  EXPECT_EQ(cache.Format(date, 19, kWallClock + 1), 0u) << "never cut into a short buffer";
  SetTimeZone("XXX-2");
  cache.Invalidate();
  cache.Format(date, sizeof(date), kWallClock + 1);
  EXPECT_STREQ(date, "2023-11-15 00:13:21");
  // id, room, result: the header is 101 bytes or refused without writing
  const std::tuple<std::string, size_t, int32_t> cases[] = {{std::string(81, 'w'), 102, 101},
                                                            {"DefaultAccountID", 101, -1},
                                                            {std::string(82, 'w'), 200, -1}};
  for (const auto& [id, capacity, result] : cases) {
    std::memset(buffer_, '#', sizeof(buffer_));
    EXPECT_EQ(FormatAccountIDHeaderLine(buffer_, capacity, id.c_str()), result) << id;
    EXPECT_EQ(buffer_[101], result > 0 ? '\0' : '#');
    if (result > 0) {
      EXPECT_EQ(std::string(buffer_), Header(id));
    }
  }
}

}  // namespace
