#include "agent/src/infra/logger/LogLineFormatter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/agent/infra/logger/LogLines.h"

namespace {

using namespace LogLineFormatter;

class LogLineFormatterTest : public ::testing::Test {
 protected:
  void SetUp() override { SetTimeZone("UTC"); }
  char buffer_[200];
};

TEST_F(LogLineFormatterTest, CachedLocalDateFollowsTheSecondAndItsInvalidation) {
  DateTimeCache cache;
  char date[kDateTimeSize];
  ASSERT_EQ(cache.Format(date, sizeof(date), kWallClock), 19u);
  EXPECT_STREQ(date, "2023-11-14 22:13:20");
  EXPECT_EQ(cache.Format(date, sizeof(date), kWallClock + 1), 19u);
  EXPECT_STREQ(date, "2023-11-14 22:13:21");
  EXPECT_EQ(cache.Format(date, 19, kWallClock + 1), 0u) << "never cut into a short buffer";
  SetTimeZone("XXX-2");
  cache.Invalidate();
  cache.Format(date, sizeof(date), kWallClock + 1);
  EXPECT_STREQ(date, "2023-11-15 00:13:21");
}

TEST_F(LogLineFormatterTest, HeaderIs101BytesOrRefusedWithoutWritingPastIt) {
  const struct {
    std::string id;
    size_t capacity;
    int32_t result;
  } cases[] = {{"DefaultAccountID", 102, 101},
               {std::string(81, 'w'), 200, 101},
               {"DefaultAccountID", 101, -1},
               {std::string(82, 'w'), 102, -1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.id + " " + std::to_string(c.capacity));
    std::memset(buffer_, '#', sizeof(buffer_));
    EXPECT_EQ(FormatAccountIDHeaderLine(buffer_, c.capacity, c.id.c_str()), c.result);
    EXPECT_EQ(buffer_[101], c.result > 0 ? '\0' : '#');
    if (c.result > 0) {
      EXPECT_EQ(std::string(buffer_), Header(c.id));
    }
  }
}

}  // namespace
