#include "agent/src/infra/utils/SysResourcesMonitoring.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

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

TEST_F(SysResMonTest, CountsOnlyNumericDirectories) {
  proc_.Add({.pid = 1});
  proc_.Add({.pid = 300});
  proc_.WriteFile("self/status", "Name:\tself\n");
  proc_.WriteFile("42", "a file, not a process");
  EXPECT_EQ(2, SysResMon::CountProcesses());
  SetProcRoot((proc_.root() + "/absent").c_str());
  EXPECT_EQ(-1, SysResMon::CountProcesses());
  EXPECT_TRUE(log_.Contains("Can't read directory " + proc_.root() + "/absent\n"));
}

TEST_F(SysResMonTest, TwentyOneZombieParentsOverflowTheSpawnerTable) {
  proc_.Add({.pid = 1, .name = "init", .threads = 1});
  for (int parent = 100; parent < 121; ++parent) {
    proc_.Add({.pid = parent, .name = "spawner" + std::to_string(parent), .threads = 2});
    proc_.Add({.pid = parent + 1000,
               .name = "dead",
               .state = "Z (zombie)",
               .ppid = parent,
               .threads = 1});
  }
  proc_.Add({.pid = 2000, .name = "dead", .state = "Z (zombie)", .ppid = 100, .threads = 1});

  int32_t zombies = -1;
  int32_t threads = -1;
  ASSERT_EQ(StatusCode::SUCCESS, SysResMon::MonitorZombiesAndThreads(&zombies, &threads));
  EXPECT_EQ(22, zombies);
  EXPECT_EQ(1 + 21 * 2 + 22, threads);
  EXPECT_EQ(20u, log_.Count(LoggerLevel::INFO, "Zombie spawner detected! Name:[spawner"));
  EXPECT_EQ(1u, log_.Count("Zombie spawner detected! Name:[spawner100], pid:[100], "
                           "zombies spawned:[2] \n"));
  // Listing order decides which parent is left out; exactly one is, and its
  // zombie still counted above.
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR,
                           "No space for counting zombie spawner! process name [spawner"));
}

TEST_F(SysResMonTest, OrphanedZombieAndVanishedProcessDoNotStopTheScan) {
  proc_.Add({.pid = 1, .name = "init", .threads = 1});
  proc_.Add({.pid = 50, .name = "orphan", .state = "Z (zombie)", .ppid = 49, .threads = 1});
  proc_.AddVanished(51);
  proc_.Add({.pid = 52, .name = "busy", .threads = 40});

  int32_t zombies = -1;
  int32_t threads = -1;
  ASSERT_EQ(StatusCode::SUCCESS, SysResMon::MonitorZombiesAndThreads(&zombies, &threads));
  EXPECT_EQ(1, zombies);
  EXPECT_EQ(42, threads);
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR,
                           "Failed to find zombie's parent! Zombie name: [orphan], pid: [50] \n"));
  EXPECT_EQ(1u, log_.Count(LoggerLevel::DEBUG, "Can't read process status for PID 51, ret 3\n"));
  EXPECT_FALSE(log_.Contains("Zombie spawner detected"));
}

TEST_F(SysResMonTest, NullOutputsAreReportedAndAnUnreadableRootFails) {
  proc_.Add({.pid = 5, .name = "p", .state = "Z (zombie)", .ppid = 6});
  proc_.Add({.pid = 6, .name = "parent"});
  EXPECT_EQ(StatusCode::SUCCESS, SysResMon::MonitorZombiesAndThreads(nullptr, nullptr));
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR, "ASSERT FAILED: NULL != zombiesCountOut \n"));
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR, "ASSERT FAILED: NULL != systemThreadsCountOut \n"));
  EXPECT_TRUE(log_.Contains("Name:[parent], pid:[6], zombies spawned:[1]"));

  SetProcRoot((proc_.root() + "/absent").c_str());
  int32_t zombies = 0;
  int32_t threads = 0;
  EXPECT_EQ(StatusCode::FAILURE, SysResMon::MonitorZombiesAndThreads(&zombies, &threads));
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR, "Can't read number of pids\n"));
}

TEST_F(SysResMonTest, ProcessListIsSortedByResidentSizeAndCut) {
  proc_.Add({.pid = 3, .name = "small", .vmRssKb = 10, .vmHwmKb = 11});
  proc_.Add({.pid = 4, .name = "big", .vmRssKb = 9000, .vmHwmKb = 9100});
  proc_.Add({.pid = 5, .name = "middle", .vmRssKb = 500, .vmHwmKb = 600});
  proc_.AddVanished(6);
  SysResMon::LogProcessesMemConsumption(2);
  std::vector<std::string> ps;
  for (const LogCapture::Line& line : log_.Lines()) {
    if (line.message.rfind("PS: ", 0) == 0) ps.push_back(line.message);
  }
  ASSERT_EQ(3u, ps.size());
  EXPECT_EQ("PS: PID  NAME  VM_RSS_KB  VM_HWM_KB\n", ps[0]);
  EXPECT_EQ("PS: 4  big  9000  9100\n", ps[1]);
  EXPECT_EQ("PS: 5  middle  500  600\n", ps[2]);

  log_.Clear();
  SysResMon::LogProcessesMemConsumption(0);
  EXPECT_EQ(4u, log_.Count(LoggerLevel::INFO, "PS: "));
}

// The real /proc, with a child of this test left unreaped as a zombie.
TEST_F(SysResMonTest, RealProcShowsOwnZombieChildAndOwnStatus) {
  SetProcRoot(nullptr);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) _exit(0);
  siginfo_t info{};
  ASSERT_EQ(0, waitid(P_PID, child, &info, WEXITED | WNOWAIT));  // exited, not reaped

  SysResMon::ProcessStatus self{};
  ASSERT_EQ(StatusCode::SUCCESS, SysResMon::ReadProcessStatus(self, getpid()));
  SysResMon::ProcessStatus zombie{};
  ASSERT_EQ(StatusCode::SUCCESS, SysResMon::ReadProcessStatus(zombie, child));
  EXPECT_STREQ("Z", zombie.state.data());
  EXPECT_EQ(getpid(), zombie.ppid);

  int32_t zombies = 0;
  int32_t threads = 0;
  EXPECT_EQ(StatusCode::SUCCESS, SysResMon::MonitorZombiesAndThreads(&zombies, &threads));
  EXPECT_GE(zombies, 1);
  EXPECT_GE(threads, self.threads + 1);
  EXPECT_TRUE(log_.Contains("Zombie spawner detected! Name:[" + std::string(self.name.data()) +
                            "], pid:[" + std::to_string(getpid()) + "], zombies spawned:[1] \n"))
      << log_.Dump();

  int32_t highestRss = 0;
  int32_t highestFds = 0;
  SysResMon::CheckProcessResConsumption(nullptr, getpid(), 1024, highestRss, highestFds);
  EXPECT_EQ(self.vmRssKb > 0, highestRss > 0);
  EXPECT_GE(highestFds, 3);
  waitpid(child, nullptr, 0);
}

}  // namespace
