#include "common/version.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/LogCapture.h"

namespace {

TEST(VersionTest, FullVersionAndPrefix) {
  char version[32];
  EXPECT_STREQ("40.5.21.71902", GetQuillmorVersionStr(version, sizeof(version), false));
  EXPECT_STREQ("3.0.0", GetSemVerStr(version, sizeof(version), 3, 0, 0, false));
  EXPECT_STREQ("40.5", GetSemVerStr(version, 5, 40, 5, 21, true)) << "cut silently";
  char prefix[128];
  EXPECT_STREQ("Quillmor_40.5.21.71902_WatchdogLogger",
               PrepareLogFilePrefix(prefix, sizeof(prefix), "WatchdogLogger"));
}

class LogFileNameTest : public ::testing::Test {
 protected:
  const char* Parse(const char* name) {
    return ExtractPrefixDataFromLogFileName(name, version_, sizeof(version_), entity_,
                                            sizeof(entity_));
  }
  char version_[32] = {};
  char entity_[32] = {};
  LogCapture log_;
};

TEST_F(LogFileNameTest, AcceptsOwnNamesAndPointsAtTheNumber) {
  const char* name = "Quillmor_40.5.21.71902_WatchdogLogger_3";
  EXPECT_EQ(name + 38, Parse(name));
  EXPECT_STREQ("40.5.21.71902", version_);
  EXPECT_STREQ("WatchdogLogger", entity_);
  EXPECT_STREQ("1234_0.1", Parse("Quillmor_1.2.3.4_AgentLogger_1234_0.1"));
  EXPECT_STREQ("1.2.3.4", version_);
  EXPECT_EQ(nullptr, ExtractPrefixDataFromLogFileName(nullptr, version_, 32, entity_, 32));
  EXPECT_EQ(nullptr, ExtractPrefixDataFromLogFileName(name, version_, 0, entity_, 32));
  EXPECT_TRUE(log_.Lines().empty()) << "null arguments are refused quietly";
}

TEST_F(LogFileNameTest, RejectsWhatDoesNotFollowTheGrammarFromWhereItStopped) {
  EXPECT_EQ(nullptr, Parse("Quillmor_40.5.21.engineering_WatchdogLogger_3"));
  EXPECT_STREQ("40.5.21.engineering", version_) << "named before it is refused";
  // name, where parsing stopped
  const std::pair<const char*, const char*> cases[] = {
      {"Quillmor_40.5.21.engineering_WatchdogLogger_3", ".engineering_WatchdogLogger_3"},
      {"Quillmor_40.5.21.71902_Unknown_1", "Unknown_1"},
      {"Quillmor_+1.2.3.4_WatchdogLogger_1", "+1.2.3.4_WatchdogLogger_1"},
      {"Quillmor_1.2_WatchdogLogger_1", "_WatchdogLogger_1"},
      {"Quillmor_1.2.3.x_WatchdogLogger_1", "x_WatchdogLogger_1"},
      {"Quillmor_1.2.3.4-WatchdogLogger_1", "-WatchdogLogger_1"},
      {"Quillmor_1.2.3.4__1", "_1"},
      {"quillmor_1.2.3.4_WatchdogLogger_1", "quillmor_1.2.3.4_WatchdogLogger_1"},
  };
  for (const auto& [name, logged] : cases) {
    log_.Clear();
    EXPECT_EQ(nullptr, Parse(name));
    EXPECT_EQ("Failed parsing file prefix '" + std::string(logged) + "'. Ignoring this file\n",
              log_.Dump());
  }
}

}  // namespace
