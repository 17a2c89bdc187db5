// The date cache and the account header. The JSON line itself is LoggerTest's,
// byte for byte, as the logger writes it.

#include "logger/LogLineFormatter.h"

#include <gtest/gtest.h>

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
