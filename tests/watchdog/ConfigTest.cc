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

TEST_F(ConfigTest, OutOfRangeAndWrongTypeAnswersAreFixed) {
  EXPECT_EQ(Config::GetName(39), nullptr);
  EXPECT_EQ(Config::GetType(39), CFG_TYPE_STRING);
  EXPECT_STREQ(Config::GetStrValue(CFG_CPU_CORES_NUMBER), "N/A");
  EXPECT_EQ(Config::GetIntValue(CFG_LIB_PATH), 0);
  EXPECT_FALSE(Config::GetBoolValue(CFG_CPU_CORES_NUMBER));
  EXPECT_STREQ(Config::GetStrValue(1000), "N/A");
  EXPECT_TRUE(logs_.Contains("Trying to get name for key 39?\n"));
  EXPECT_TRUE(logs_.Contains("Trying to get type for key 39?\n"));
  EXPECT_TRUE(logs_.Contains("Trying to get string value for key 11, type 1\n"));
  EXPECT_TRUE(logs_.Contains("Trying to get integer value for key 5, type 0\n"));
  EXPECT_TRUE(logs_.Contains("Trying to get boolean value for key 11, type 1\n"));
  EXPECT_EQ(logs_.Count(LoggerLevel::ERROR, "Trying to get"), 6u);
}

TEST_F(ConfigTest, SettersLogOldAndNewValues) {
  Config::SetStrValue(CFG_PID_FILE_PATH, "/var/run/");
  Config::SetIntValue(CFG_CPU_CORES_NUMBER, 4);
  Config::SetBoolValue(CFG_SET_LD_LIB_PATH, true);
  EXPECT_STREQ(Config::GetStrValue(CFG_PID_FILE_PATH), "/var/run/");
  EXPECT_EQ(Config::GetIntValue(CFG_CPU_CORES_NUMBER), 4);
  EXPECT_TRUE(Config::GetBoolValue(CFG_SET_LD_LIB_PATH));
  EXPECT_EQ(logs_.Count(LoggerLevel::VERBOSE, "'pidFilePath': '' -> '/var/run/'\n"), 1u);
  EXPECT_EQ(logs_.Count(LoggerLevel::VERBOSE, "'cpuCoresNumber': 2 -> 4\n"), 1u);
  EXPECT_EQ(logs_.Count(LoggerLevel::VERBOSE, "'setLdLibPath': False -> True\n"), 1u);
}

TEST_F(ConfigTest, SettersRefuseTheWrongTypeWithoutChangingAnything) {
  Config::SetStrValue(CFG_CPU_CORES_NUMBER, "7");
  Config::SetIntValue(CFG_LIB_PATH, 7);
  Config::SetBoolValue(CFG_NUM_OF_KEYS, true);
  EXPECT_EQ(Config::GetIntValue(CFG_CPU_CORES_NUMBER), 2);
  EXPECT_STREQ(Config::GetStrValue(CFG_LIB_PATH), "/var/quillmor");
  EXPECT_TRUE(logs_.Contains("Trying to set string value '7' for key 11, type 1\n"));
  EXPECT_TRUE(logs_.Contains("Trying to set integer value 7 for key 5, type 0\n"));
  EXPECT_TRUE(logs_.Contains("Trying to set boolean value True for key 39, type -1\n"));
}

TEST_F(ConfigTest, StringValuesAreCutTo128Characters) {
  Config::SetStrValue(CFG_LIB_PATH, std::string(300, 'x').c_str());
  EXPECT_EQ(std::string(Config::GetStrValue(CFG_LIB_PATH)), std::string(128, 'x'));
}

TEST_F(ConfigTest, MissingFileKeepsEveryDefault) {
  EXPECT_TRUE(Config::Init(dir_.File("absent.cfg").c_str()));
  EXPECT_EQ(Config::GetIntValue(CFG_CPU_CORES_NUMBER), 2);
  EXPECT_STREQ(Config::GetStrValue(CFG_WD_LOG_PATH), "WatchdogLogger");
}

TEST_F(ConfigTest, OverlongPathCannotCreateTheReader) {
  EXPECT_FALSE(Config::Init(std::string(300, 'p').c_str()));
  EXPECT_TRUE(logs_.Contains("Can't create config file reader object for config file 'ppp"));
}

TEST_F(ConfigTest, ReadsEveryKindOfValue) {
  ASSERT_TRUE(
      Load("# watchdog configuration\n"
           "cpuAffinityMask = 0x3\n"
           "cpuCoresNumber=010\n"
           "CriticalErrorRetries=-5\n"
           "pidFilePath=/var/run/ # pid files\n"
           "localVersionPath=\"/tmp/a b\"\n"
           "setLdLibPath=TRUE\n"));
  EXPECT_EQ(Config::GetIntValue(CFG_CPU_AFFINITY_MASK), 3);
  EXPECT_EQ(Config::GetIntValue(CFG_CPU_CORES_NUMBER), 8);
  EXPECT_EQ(Config::GetIntValue(CFG_CRITICAL_ERROR_RETRIES), -5);
  EXPECT_STREQ(Config::GetStrValue(CFG_PID_FILE_PATH), "/var/run/");
  EXPECT_STREQ(Config::GetStrValue(CFG_LOCAL_VERSION_PATH), "/tmp/a b");
  EXPECT_TRUE(Config::GetBoolValue(CFG_SET_LD_LIB_PATH));
}

TEST_F(ConfigTest, OnlyTheWordTrueMakesABooleanTrue) {
  ASSERT_TRUE(Load("setLdLibPath=tRuE\n"));
  EXPECT_TRUE(Config::GetBoolValue(CFG_SET_LD_LIB_PATH));
  ASSERT_TRUE(Load("setLdLibPath=1\n"));
  EXPECT_FALSE(Config::GetBoolValue(CFG_SET_LD_LIB_PATH));
}

TEST_F(ConfigTest, UnparsableIntegerFailsTheLoadAndKeepsTheDefault) {
  EXPECT_FALSE(Load("cpuAffinityMask=1\ncpuCoresNumber=12abc\nMaxDelayPeriodSec=7\n"));
  EXPECT_TRUE(logs_.Contains("Failed reading key 'cpuCoresNumber'(11) value '12abc'\n"));
  EXPECT_EQ(Config::GetIntValue(CFG_CPU_CORES_NUMBER), 2);
  EXPECT_EQ(Config::GetIntValue(CFG_CPU_AFFINITY_MASK), 1);
  EXPECT_EQ(Config::GetIntValue(CFG_MAX_DELAY_PERIOD_SEC), 600);
}

TEST_F(ConfigTest, MalformedLineEndsTheReadButTheLoadSucceeds) {
  EXPECT_TRUE(Load("cpuAffinityMask=1\nlocalVersionPath=\"\"\ncpuCoresNumber=4\n"));
  EXPECT_EQ(Config::GetIntValue(CFG_CPU_AFFINITY_MASK), 1);
  EXPECT_STREQ(Config::GetStrValue(CFG_LOCAL_VERSION_PATH), "");
  EXPECT_EQ(Config::GetIntValue(CFG_CPU_CORES_NUMBER), 2);
}

TEST_F(ConfigTest, DosLineEndsStopAtTheFirstBareCrLf) {
  EXPECT_TRUE(Load("cpuAffinityMask=1\r\nwdLogPath=Wd\r\n\r\ncpuCoresNumber=4\r\n"));
  EXPECT_EQ(Config::GetIntValue(CFG_CPU_AFFINITY_MASK), 1);
  EXPECT_STREQ(Config::GetStrValue(CFG_WD_LOG_PATH), "Wd");
  EXPECT_EQ(Config::GetIntValue(CFG_CPU_CORES_NUMBER), 2);
}

TEST_F(ConfigTest, UnknownKeysAreSkippedAndNamesAreCaseSensitive) {
  const std::string key64(64, 'k');
  EXPECT_TRUE(Load("noSuchKey=1\nCpuCoresNumber=5\n" + key64 + "=2\ncpuCoresNumber=4\n"));
  EXPECT_TRUE(logs_.Contains("Read unknown key 'noSuchKey' with value '1', ignoring\n"));
  EXPECT_TRUE(logs_.Contains("Read unknown key 'CpuCoresNumber' with value '5', ignoring\n"));
  EXPECT_TRUE(logs_.Contains("Read unknown key '" + key64 + "' with value '2', ignoring\n"));
  EXPECT_EQ(Config::GetIntValue(CFG_CPU_CORES_NUMBER), 4);
}

TEST_F(ConfigTest, LaterValueOfARepeatedKeyWins) {
  EXPECT_TRUE(Load("wdLogDir=/a\nwdLogDir=/b\n"));
  EXPECT_STREQ(Config::GetStrValue(CFG_WD_LOG_DIR), "/b");
}

TEST_F(ConfigTest, SurvivesHugeFiles) {
  std::string content;
  for (int i = 0; i < 10000; ++i) content += "cpuCoresNumber=" + std::to_string(i) + "\n";
  // Its second 1023-byte piece reads as an overlong key, which ends the read.
  content += "#" + std::string(100000, 'x') + "\n";
  EXPECT_TRUE(Load(content));
  EXPECT_EQ(Config::GetIntValue(CFG_CPU_CORES_NUMBER), 9999);
}

TEST_F(ConfigTest, TeardownKeepsValuesReadable) {
  ASSERT_TRUE(Load("wdLogDir=/logs\n"));
  Config::Teardown();
  EXPECT_STREQ(Config::GetStrValue(CFG_WD_LOG_DIR), "/logs");
}

}  // namespace
