#include "agent/src/infra/utils/SysResourcesMonitoring.h"

#include <gtest/gtest.h>

#include <string>

#include "common/ProcRoot.h"
#include "tests/agent/infra/utils/FakeProcTree.h"
#include "tests/support/LogCapture.h"

namespace {

class SysResMonTest : public ::testing::Test {
 protected:
  FakeProcTree proc_;
  LogCapture log_;
};

const char kMeminfo[] =
    "MemTotal:        2048000 kB\n"
    "MemFree:          500000 kB\n"
    "MemAvailable:     900000 kB\n"
    "Buffers:           30000 kB\n"
    "Cached:           400000 kB\n"
    "Active(anon):      12000 kB\n"
    "HugePages_Total:       0\n";

TEST_F(SysResMonTest, MeminfoGivesTheFiveTotalsAndAvailableWithoutBuffersOnOldKernels) {
  proc_.WriteFile("meminfo", kMeminfo);
  SysResMon::MemoryInfo info{};
  ASSERT_EQ(StatusCode::SUCCESS, SysResMon::ReadMeminfo(info));
  EXPECT_EQ(2048000u, info.totalKb);
  EXPECT_EQ(500000u, info.freeKb);
  EXPECT_EQ(900000u, info.availableKb);
  EXPECT_EQ(30000u, info.buffersKb);
  EXPECT_EQ(400000u, info.cachedKb);

  // Older kernels have no MemAvailable line.
  proc_.WriteFile("meminfo",
                  "MemTotal: 64000 kB\nMemFree: 1000 kB\nBuffers: 300 kB\n"
                  "Cached: 2000 kB\n");
  ASSERT_EQ(StatusCode::SUCCESS, SysResMon::ReadMeminfo(info));
  EXPECT_EQ(3000u, info.availableKb);
}

TEST_F(SysResMonTest, MeminfoFailsOnALineWithoutItsNumberOrMissingFile) {
  proc_.WriteFile("meminfo", "MemTotal: 64000 kB\nMemFree\nCached: 2000 kB\n");
  SysResMon::MemoryInfo info{};
  EXPECT_EQ(StatusCode::FAILURE, SysResMon::ReadMeminfo(info));
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR, "There's an issue with parsing " + proc_.root()));
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR, "Failed line: MemFree\n, results in param=MemFree"));

  // A line longer than the read buffer comes in pieces, and a piece without
  // its number fails the whole read rather than reading past the buffer.
  proc_.WriteFile("meminfo", "MemTotal: 64000 kB\n" + std::string(700, 'A') + ": 5 kB\n");
  EXPECT_EQ(StatusCode::FAILURE, SysResMon::ReadMeminfo(info));

  SetProcRoot((proc_.root() + "/missing").c_str());
  EXPECT_EQ(StatusCode::FAILURE, SysResMon::ReadMeminfo(info));
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR, "Failed creating '" + proc_.root() +
                                                   "/missing/meminfo' file reader object\n"));
}

TEST_F(SysResMonTest, ProcessStatusKeepsFirstWordsAndSkipsUnknownOrOverlongLines) {
  proc_.WriteFile("77/status",
                  "Name:\tWeb Content\nState:\tZ (zombie)\nPPid:\t12\n"
                  "Groups:\t" +
                      std::string(900, '7') +
                      "\n"
                      "VmHWM:\t  5000 kB\nVmRSS:\t  4000 kB\nThreads:\t9\nFDSize:\t256\n");
  SysResMon::ProcessStatus st{};
  ASSERT_EQ(StatusCode::SUCCESS, SysResMon::ReadProcessStatus(st, 77));
  EXPECT_EQ(77, st.pid);
  EXPECT_STREQ("Web", st.name.data());
  EXPECT_STREQ("Z", st.state.data());
  EXPECT_EQ(12, st.ppid);
  EXPECT_EQ(5000, st.vmHwmKb);
  EXPECT_EQ(4000, st.vmRssKb);
  EXPECT_EQ(9, st.threads);
  EXPECT_EQ(256, st.fdSize);
}

TEST_F(SysResMonTest, ProcessNameWithOddBytesOrBeyondTheWordLimitIsCutNotOverrun) {
  proc_.WriteFile("78/status", "Name:\t\x01\xff\x7f" + std::string(300, 'n') + "\nThreads:\t2\n");
  SysResMon::ProcessStatus st{};
  ASSERT_EQ(StatusCode::SUCCESS, SysResMon::ReadProcessStatus(st, 78));
  EXPECT_EQ(99u, std::string(st.name.data()).size());
  EXPECT_EQ(std::string("\x01\xff\x7f"), std::string(st.name.data(), 3));
  EXPECT_EQ(2, st.threads);
}

TEST_F(SysResMonTest, ProcessStatusRefusesBadPidsAndVanishedProcesses) {
  SysResMon::ProcessStatus st{};
  EXPECT_EQ(StatusCode::INVALID_PARAM, SysResMon::ReadProcessStatus(st, 0));
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR, "PID can't be less than 1\n"));
  proc_.AddVanished(4242);
  EXPECT_EQ(StatusCode::FAILURE, SysResMon::ReadProcessStatus(st, 4242));
  // A process that has gone is an ordinary race on /proc, not an error.
  EXPECT_EQ(1u, log_.Count(LoggerLevel::DEBUG, "/4242/status' file reader object\n"));
}

TEST_F(SysResMonTest, CountFilesLeavesOutTheDotEntriesAndReportsNulls) {
  proc_.WriteFile("logs/a", "");
  proc_.WriteFile("logs/b", "");
  int32_t n = -1;
  EXPECT_EQ(StatusCode::SUCCESS, SysResMon::CountFilesInDirectory(proc_.root().c_str(), &n));
  EXPECT_EQ(1, n);  // logs/
  EXPECT_EQ(StatusCode::SUCCESS,
            SysResMon::CountFilesInDirectory((proc_.root() + "/logs").c_str(), &n));
  EXPECT_EQ(2, n);
  EXPECT_EQ(StatusCode::FAILURE,
            SysResMon::CountFilesInDirectory((proc_.root() + "/none").c_str(), &n));
  EXPECT_TRUE(log_.Contains("Can't open [" + proc_.root() + "/none] to get number of files\n"));

  EXPECT_EQ(StatusCode::FAILURE, SysResMon::CountFilesInDirectory(nullptr, nullptr));
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR, "ASSERT FAILED: NULL != dir \n"));
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR, "ASSERT FAILED: NULL != filesNumber \n"));
}

TEST_F(SysResMonTest, OpenDescriptorsOfAPreparedProcess) {
  proc_.Add({.pid = 10, .openFds = 5});
  int32_t n = 0;
  EXPECT_EQ(StatusCode::SUCCESS, SysResMon::GetNumOpenFileDescriptors(&n, 10));
  EXPECT_EQ(5, n);
  EXPECT_EQ(StatusCode::INVALID_PARAM, SysResMon::GetNumOpenFileDescriptors(&n, -3));
  EXPECT_EQ(StatusCode::INVALID_PARAM, SysResMon::GetNumOpenFileDescriptors(nullptr, 10));
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR, "num can't be NULL"));
  EXPECT_EQ(StatusCode::FAILURE, SysResMon::GetNumOpenFileDescriptors(&n, 11));
  EXPECT_TRUE(log_.Contains("Failed to count files in directory [" + proc_.root() + "/11/fd] \n"));
}

TEST_F(SysResMonTest, PeaksAreLoggedOnlyAfterAFullMemoryStepOrAnExtraDescriptor) {
  proc_.Add({.pid = 20, .name = "agent", .vmRssKb = 11023, .vmHwmKb = 12000, .openFds = 3});
  int32_t highestRss = 10000;
  int32_t highestFds = 3;
  SysResMon::CheckProcessResConsumption("userAgent", 20, SysResMon::kMemoryStepKb, highestRss,
                                        highestFds);
  EXPECT_EQ(10000, highestRss);
  EXPECT_EQ(3, highestFds);
  EXPECT_FALSE(log_.Contains("MAX"));

  proc_.Add({.pid = 20, .name = "agent", .vmRssKb = 11024, .vmHwmKb = 12000, .openFds = 3});
  SysResMon::CheckProcessResConsumption("userAgent", 20, SysResMon::kMemoryStepKb, highestRss,
                                        highestFds);
  EXPECT_EQ(11024, highestRss);
  EXPECT_EQ(1u, log_.Count(LoggerLevel::INFO,
                           "MEM MAX: Process userAgent, PID 20 is using 11024 Kb VM RSS, 12000 Kb "
                           "VM HW, 64 FD buff size\n"));

  proc_.WriteFile("20/fd/3", "");
  SysResMon::CheckProcessResConsumption("userAgent", 20, SysResMon::kMemoryStepKb, highestRss,
                                        highestFds);
  EXPECT_EQ(4, highestFds);
  EXPECT_EQ(1u, log_.Count(LoggerLevel::INFO,
                           "FD MAX: Process userAgent, PID 20 has 4 open file descriptors\n"));
}

TEST_F(SysResMonTest, CheckOfAVanishedProcessLogsAndLeavesThePeaks) {
  int32_t highestRss = 7;
  int32_t highestFds = 7;
  SysResMon::CheckProcessResConsumption("gone", 555, 1024, highestRss, highestFds);
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR, "Can't read process status for PID 555, ret 3\n"));

  // Status readable, descriptors not: the memory part still counts, under
  // the status name when the caller gives none.
  proc_.WriteFile("556/status", "Name:\tx\nVmRSS:\t5000 kB\n");
  SysResMon::CheckProcessResConsumption(nullptr, 556, 1024, highestRss, highestFds);
  EXPECT_TRUE(log_.Contains("MEM MAX: Process x, PID 556 is using 5000 Kb"));
  EXPECT_EQ(5000, highestRss);
  EXPECT_EQ(7, highestFds);
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR,
                           "Can't get number of open file descriptors for PID 556, ret 3\n"));
}

}  // namespace
