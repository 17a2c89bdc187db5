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

struct KeyRow {
  uint32_t key;
  const char* name;
  ConfigValueType type;
  const char* defaultText;  // string keys
  int32_t defaultInt;       // integer and boolean keys
};

// Key numbers, names and types are an interface shared with the agent.
const KeyRow kTable[] = {
    {0, "agentSymLinkPath", CFG_TYPE_STRING, "/var/quillmor/quillmorUserAgent", 0},
    {1, "systemExecSymLinkPath", CFG_TYPE_STRING, "/var/quillmor/quillmorSystemExec", 0},
    {2, "moduleSymLinkPath", CFG_TYPE_STRING, "/var/quillmor/quillmorKernelAgent", 0},
    {3, "controlScriptPath", CFG_TYPE_STRING, "/var/quillmor/quillmor_control.sh", 0},
    {4, "teardownScriptPath", CFG_TYPE_STRING, "/var/quillmor/quillmor_teardown.sh", 0},
    {5, "libPath", CFG_TYPE_STRING, "/var/quillmor", 0},
    {6, "downloadDir", CFG_TYPE_STRING, "/var/quillmor", 0},
    {7, "dnsServers", CFG_TYPE_STRING, "2001:4860:4860::8888,2001:4860:4860::8844,8.8.8.8,8.8.4.4",
     0},
    {8, "wdLogDir", CFG_TYPE_STRING, "/var/log/quillmor", 0},
    {9, "wdLogPath", CFG_TYPE_STRING, "WatchdogLogger", 0},
    {10, "cpuAffinityMask", CFG_TYPE_INT, nullptr, 0},
    {11, "cpuCoresNumber", CFG_TYPE_INT, nullptr, 2},
    {12, "setLdLibPath", CFG_TYPE_BOOL, nullptr, 0},
    {13, "localVersionPath", CFG_TYPE_STRING, "", 0},
    {14, "pidFilePath", CFG_TYPE_STRING, "", 0},
    {15, "DelayTimeIncreaseSec", CFG_TYPE_INT, nullptr, 10},
    {16, "MaxDelayPeriodSec", CFG_TYPE_INT, nullptr, 600},
    {17, "ConcurrentCleanupSec", CFG_TYPE_INT, nullptr, 900},
    {18, "SleepOnCriticalErrorSec", CFG_TYPE_INT, nullptr, 3600},
    {19, "CriticalErrorRetries", CFG_TYPE_INT, nullptr, 72},
    {20, "Normal1NumEvents", CFG_TYPE_INT, nullptr, 10},
    {21, "Normal1DurationSec", CFG_TYPE_INT, nullptr, 900},
    {22, "Normal1Result", CFG_TYPE_INT, nullptr, 2},
    {23, "Normal2NumEvents", CFG_TYPE_INT, nullptr, 5},
    {24, "Normal2DurationSec", CFG_TYPE_INT, nullptr, 300},
    {25, "Normal2Result", CFG_TYPE_INT, nullptr, 1},
    {26, "Normal3NumEvents", CFG_TYPE_INT, nullptr, 0},
    {27, "Normal3DurationSec", CFG_TYPE_INT, nullptr, 0},
    {28, "Normal3Result", CFG_TYPE_INT, nullptr, 0},
    {29, "Safe1NumEvents", CFG_TYPE_INT, nullptr, 1},
    {30, "Safe1DurationSec", CFG_TYPE_INT, nullptr, 5},
    {31, "Safe1Result", CFG_TYPE_INT, nullptr, 1},
    {32, "Safe2NumEvents", CFG_TYPE_INT, nullptr, 0},
    {33, "Safe2DurationSec", CFG_TYPE_INT, nullptr, 0},
    {34, "Safe2Result", CFG_TYPE_INT, nullptr, 0},
    {35, "Safe3NumEvents", CFG_TYPE_INT, nullptr, 0},
    {36, "Safe3DurationSec", CFG_TYPE_INT, nullptr, 0},
    {37, "Safe3Result", CFG_TYPE_INT, nullptr, 0},
    {38, "ProcModulesRetries", CFG_TYPE_INT, nullptr, 3},
};
static_assert(sizeof(kTable) / sizeof(kTable[0]) == CFG_NUM_OF_KEYS);

TEST_F(ConfigTest, TableHoldsEveryKeyWithItsNameTypeAndDefault) {
  for (const KeyRow& row : kTable) {
    SCOPED_TRACE(row.name);
    EXPECT_STREQ(Config::GetName(row.key), row.name);
    ASSERT_EQ(Config::GetType(row.key), row.type);
    switch (row.type) {
      case CFG_TYPE_STRING:
        EXPECT_STREQ(Config::GetStrValue(row.key), row.defaultText);
        break;
      case CFG_TYPE_INT:
        EXPECT_EQ(Config::GetIntValue(row.key), row.defaultInt);
        break;
      case CFG_TYPE_BOOL:
        EXPECT_EQ(Config::GetBoolValue(row.key), row.defaultInt != 0);
        break;
    }
  }
  EXPECT_EQ(logs_.Lines().size(), 0u) << logs_.Dump();
}

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

TEST_F(ConfigTest, KeyOf65CharactersEndsTheRead) {
  EXPECT_TRUE(Load(std::string(65, 'k') + "=2\ncpuCoresNumber=4\n"));
  EXPECT_EQ(Config::GetIntValue(CFG_CPU_CORES_NUMBER), 2);
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
