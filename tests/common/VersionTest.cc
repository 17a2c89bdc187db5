#include "common/version.h"

#include <gtest/gtest.h>

namespace {

TEST(VersionTest, VersionsAndLogFilePrefixes) {
  char version[32];
  EXPECT_STREQ("40.5", GetSemVerStr(version, 5, 40, 5, 21, true)) << "cut silently";
  char prefix[64];
  EXPECT_STREQ("Quillmor_40.5.21.71902_WatchdogLogger",
               PrepareLogFilePrefix(prefix, sizeof(prefix), "WatchdogLogger"));
}

}  // namespace
