#include "common/version.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/LogCapture.h"

namespace {

TEST(VersionTest, VersionsAndPrefixesMadeAndParsedBack) {
  char version[32];
  EXPECT_STREQ("40.5", GetSemVerStr(version, 5, 40, 5, 21, true)) << "cut silently";
  char prefix[64];
  EXPECT_STREQ("Quillmor_40.5.21.71902_WatchdogLogger",
               PrepareLogFilePrefix(prefix, sizeof(prefix), "WatchdogLogger"));
  char entity[32];
  LogCapture log;
  const char* name = "Quillmor_1.2.3.4_AgentLogger_1234_0.1";
  EXPECT_EQ(name + 29, ExtractPrefixDataFromLogFileName(name, version, 32, entity, 32));
  EXPECT_STREQ("1.2.3.4", version);
  EXPECT_STREQ("AgentLogger", entity);
  EXPECT_EQ(nullptr, ExtractPrefixDataFromLogFileName(name, version, 0, entity, 32));
  // name, where parsing stopped
  const std::pair<const char*, const char*> cases[] = {
      {"Quillmor_40.5.21.engineering_WatchdogLogger_3", ".engineering_WatchdogLogger_3"},
      {"Quillmor_40.5.21.71902_Unknown_1", "Unknown_1"},
      {"Quillmor_+1.2.3.4_WatchdogLogger_1", "+1.2.3.4_WatchdogLogger_1"},
      {"Quillmor_1.2_WatchdogLogger_1", "_WatchdogLogger_1"},
      {"Quillmor_1.2.3.4-WatchdogLogger_1", "-WatchdogLogger_1"},
      {"Quillmor_1.2.3.4__1", "_1"},
      {"quillmor_1.2.3.4_WatchdogLogger_1", "quillmor_1.2.3.4_WatchdogLogger_1"},
  };
  for (const auto& [bad, logged] : cases) {
    log.Clear();
    EXPECT_EQ(nullptr, ExtractPrefixDataFromLogFileName(bad, version, 32, entity, 32));
    EXPECT_EQ("Failed parsing file prefix '" + std::string(logged) + "'. Ignoring this file\n",
              log.Dump());
  }
}

}  // namespace
