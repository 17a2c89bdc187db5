#include "agent/src/infra/logger/LoggerUtils.h"

#include <gtest/gtest.h>

#include <string>

#include "common/LoggerLevelNames.h"

namespace {

using namespace LoggerUtils;

TEST(LoggerUtilsTest, NamesTheFileOrRefusesAndStripsTheMarkerOnlyAtTheEnd) {
  char name[64];
  ASSERT_TRUE(GenerateLogFileName(name, 15, "/tmp", "wd", 77, 1, 0));
  EXPECT_STREQ(name, "/tmp/wd_77_1.0");
  EXPECT_FALSE(GenerateLogFileName(name, 14, "/tmp", "wd", 77, 1, 0));
  const std::string marker = kLogFileEndMarker;
  std::string content = "line,\n" + marker;
  EXPECT_EQ(StripLogFileEndMarker(content.data(), content.size()), 58u);
  EXPECT_STREQ(content.c_str(), "line,\n");
  content = marker + "more";
  EXPECT_EQ(StripLogFileEndMarker(content.data(), content.size()), 0u);
  EXPECT_EQ(LoggerLevelFromStr("WARN"), LoggerLevel::WARN);
  EXPECT_EQ(LoggerLevelFromStr("info"), LoggerLevel::INVALID);
}

}  // namespace
