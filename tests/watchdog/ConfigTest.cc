#include "watchdog/Config.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

class ConfigTest : public ::testing::Test {
 protected:
  ~ConfigTest() override { Config::ResetToDefaults(); }

  bool Load(const std::string& content) {
    return Config::Init(dir_.Write("watchdog.cfg", content).c_str());
  }

  TempDir dir_;
  LogCapture logs_;
};

TEST_F(ConfigTest, SettersLogBothValuesAndCutTextsToTheirField) {
  Config::SetIntValue(CFG_CPU_CORES_NUMBER, 4);
  Config::SetBoolValue(CFG_SET_LD_LIB_PATH, true);
  EXPECT_EQ(logs_.Dump(), "'cpuCoresNumber': 2 -> 4\n'setLdLibPath': False -> True\n");
  Config::SetStrValue(CFG_LIB_PATH, std::string(300, 'x').c_str());
  EXPECT_EQ(std::string(Config::GetStrValue(CFG_LIB_PATH)), std::string(128, 'x'));
}

TEST_F(ConfigTest, ReadsEveryKindOfValueTheLaterOfTwoAndSkipsUnknownKeys) {
  ASSERT_TRUE(
      Load("# watchdog configuration\ncpuAffinityMask = 0x3\ncpuCoresNumber=010\n"
           "CriticalErrorRetries=-5\npidFilePath=/var/run/ # pid files\nCpuCoresNumber=5\n"
           "localVersionPath=\"/tmp/a b#c\"\nsetLdLibPath=TRUE\nwdLogDir=/a\nwdLogDir=/b\n"));
  EXPECT_EQ(Config::GetIntValue(CFG_CPU_AFFINITY_MASK), 3);
  EXPECT_EQ(Config::GetIntValue(CFG_CPU_CORES_NUMBER), 8);
  EXPECT_EQ(Config::GetIntValue(CFG_CRITICAL_ERROR_RETRIES), -5);
  EXPECT_STREQ(Config::GetStrValue(CFG_PID_FILE_PATH), "/var/run/");
  EXPECT_STREQ(Config::GetStrValue(CFG_LOCAL_VERSION_PATH), "/tmp/a b#c");
  EXPECT_TRUE(Config::GetBoolValue(CFG_SET_LD_LIB_PATH));
  EXPECT_STREQ(Config::GetStrValue(CFG_WD_LOG_DIR), "/b");
  EXPECT_TRUE(logs_.Contains("Read unknown key 'CpuCoresNumber' with value '5', ignoring\n"));
  Config::Teardown();
  ASSERT_TRUE(Load("setLdLibPath=1\n"));
  EXPECT_FALSE(Config::GetBoolValue(CFG_SET_LD_LIB_PATH)) << "only the word true is true";
  EXPECT_STREQ(Config::GetStrValue(CFG_WD_LOG_DIR), "/b") << "readable after teardown";
}

TEST_F(ConfigTest, BadIntegerFailsTheLoadAndAMalformedLineEndsTheRead) {
  EXPECT_FALSE(Load("cpuAffinityMask=1\ncpuCoresNumber=12abc\nMaxDelayPeriodSec=7\n"));
  EXPECT_EQ(Config::GetIntValue(CFG_CPU_CORES_NUMBER), 2);
  EXPECT_EQ(Config::GetIntValue(CFG_MAX_DELAY_PERIOD_SEC), 600);
  for (const char* stop : {"localVersionPath=\"\"\n", "\r\n", "noEquals 3\n"}) {
    Config::ResetToDefaults();
    EXPECT_TRUE(
        Load(std::string("cpuAffinityMask=1\r\nwdLogPath=Wd\n") + stop + "cpuCoresNumber=4\n"));
    EXPECT_STREQ(Config::GetStrValue(CFG_WD_LOG_PATH), "Wd") << stop;
    EXPECT_EQ(Config::GetIntValue(CFG_CPU_CORES_NUMBER), 2) << stop;
  }
}

}  // namespace
