#include "watchdog/resources/SysResourcesMonitoring.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "common/ProcRoot.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

struct FakeProcess {
  int pid = 0;
  const char* name = "proc";
  const char* state = "S (sleeping)";
  int ppid = 1;
  int threads = 1;
  int vmRssKb = 100;
  int vmHwmKb = 120;
  int openFds = 0;  // entries made under fd/
};

// Every case runs on a prepared process file system installed as the /proc root.
class SysResMonTest : public ::testing::Test {
 protected:
  SysResMonTest() { SetProcRoot(root_.path().c_str()); }
  ~SysResMonTest() override { SetProcRoot(nullptr); }

  // <pid>/status in the kernel's layout, with keys that are not wanted around the wanted ones.
  void Add(const FakeProcess& p) {
    char status[512];
    std::snprintf(status, sizeof(status),
                  "Name:\t%s\nUmask:\t0022\nState:\t%s\nPid:\t%d\nPPid:\t%d\nFDSize:\t64\n"
                  "VmPeak:\t 9000 kB\nVmHWM:\t%d kB\nVmRSS:\t%d kB\nThreads:\t%d\nSigQ:\t0/7\n",
                  p.name, p.state, p.pid, p.ppid, p.vmHwmKb, p.vmRssKb, p.threads);
    root_.Write(std::to_string(p.pid) + "/status", status);
    std::filesystem::create_directories(root_.File(std::to_string(p.pid) + "/fd"));
    for (int fd = 0; fd < p.openFds; ++fd)
      root_.Write(std::to_string(p.pid) + "/fd/" + std::to_string(fd), "");
  }
  // meminfo with this content, read: the five totals in order, nothing on failure.
  std::optional<std::tuple<uint32_t, uint32_t, uint32_t, uint32_t, uint32_t>> Meminfo(
      const std::string& content) {
    root_.Write("meminfo", content);
    SysResMon::MemoryInfo m{};
    if (SysResMon::ReadMeminfo(m) != StatusCode::SUCCESS) return std::nullopt;
    return std::tuple(m.totalKb, m.freeKb, m.availableKb, m.buffersKb, m.cachedKb);
  }
  // A process directory without its status: one that vanished after the listing.
  void AddVanished(int pid) {
    std::filesystem::create_directories(root_.File(std::to_string(pid)));
  }

  TempDir root_;
  LogCapture log_;
  SysResMon::ProcessFiles files_;
};

TEST_F(SysResMonTest, MeminfoAndStatusAreReadFieldByFieldWithinTheirBuffers) {
  EXPECT_EQ(std::tuple(2048000u, 500000u, 900000u, 30000u, 400000u),
            Meminfo("MemTotal:  2048000 kB\nMemFree:  500000 kB\nMemAvailable:  900000 kB\n"
                    "Buffers:  30000 kB\nCached:  400000 kB\nHugePages_Total:  0\n"));
  // Older kernels have no MemAvailable: free + cached, buffers left out.
  EXPECT_EQ(std::tuple(64000u, 1000u, 3000u, 300u, 2000u),
            Meminfo("MemTotal: 64000 kB\nMemFree: 1000 kB\nBuffers: 300 kB\nCached: 2000 kB\n"));
  EXPECT_EQ(std::nullopt, Meminfo("MemTotal: 64000 kB\nMemFree\nCached: 2000 kB\n"));
  // A line longer than the read buffer comes in pieces; one without its number fails.
  EXPECT_EQ(std::nullopt, Meminfo("MemTotal: 64000 kB\n" + std::string(700, 'A') + ": 5 kB\n"));
  root_.Write("77/status",
              "Name:\tWeb Content\nState:\t" + std::string(300, 'Z') +
                  " (zombie)\nPPid:\t12\nGroups:\t" + std::string(900, '7') +
                  "\nVmHWM:\t  5000 kB\nVmRSS:\t  4000 kB\nThreads:\t9\nFDSize:\t256\n");
  SysResMon::ProcessStatus st{};
  ASSERT_EQ(StatusCode::SUCCESS, SysResMon::ReadProcessStatus(st, 77));
  EXPECT_EQ(std::tuple(77, std::string("Web"), std::string(99, 'Z'), 12, 5000, 4000, 9, 256),
            std::tuple(st.pid, std::string(st.name.data()), std::string(st.state.data()), st.ppid,
                       st.vmHwmKb, st.vmRssKb, st.threads, st.fdSize));
}

TEST_F(SysResMonTest, CountsLeaveOutDotEntriesAndEntriesThatAreNoProcess) {
  Add({.pid = 10, .openFds = 5});
  Add({.pid = 300});
  root_.Write("self/status", "Name:\tself\n");
  root_.Write("42", "a file, not a process");
  EXPECT_EQ(2, SysResMon::CountProcesses());
  int32_t n = -1;
  EXPECT_EQ(StatusCode::SUCCESS, SysResMon::CountFilesInDirectory(root_.path().c_str(), &n));
  EXPECT_EQ(4, n);
  EXPECT_EQ(StatusCode::SUCCESS, SysResMon::GetNumOpenFileDescriptors(&n, 10));
  EXPECT_EQ(5, n);
}

TEST_F(SysResMonTest, PeaksAreLoggedOnlyAfterAFullMemoryStepOrAnExtraDescriptor) {
  int32_t highestRss = 10000;
  int32_t highestFds = 3;
  const int steps[][4] = {{11023, 3, 10000, 3}, {11024, 3, 11024, 3}, {11024, 4, 11024, 4}};
  for (const auto& [rss, fds, wantRss, wantFds] : steps) {
    SCOPED_TRACE(std::to_string(rss) + " kB, fds " + std::to_string(fds));
    Add({.pid = 20, .vmRssKb = rss, .vmHwmKb = 12000, .openFds = fds});
    files_.Open(20);
    SysResMon::CheckProcessResConsumption("userAgent", files_, SysResMon::kMemoryStepKb, highestRss,
                                          highestFds);
    EXPECT_EQ(std::pair(wantRss, wantFds), std::pair(highestRss, highestFds));
  }
  EXPECT_EQ(log_.Dump(),
            "MEM MAX: Process userAgent, PID 20 is using 11024 Kb VM RSS, 12000 Kb VM HW, 64 FD "
            "buff size\nFD MAX: Process userAgent, PID 20 has 4 open file descriptors\n");
  // Unreadable descriptors leave the memory part counting, under the status name.
  root_.Write("556/status", "Name:\tx\nVmRSS:\t15000 kB\n");
  files_.Open(556);
  SysResMon::CheckProcessResConsumption(nullptr, files_, 1024, highestRss, highestFds);
  EXPECT_TRUE(log_.Contains("MEM MAX: Process x, PID 556 is using 15000 Kb"));
  EXPECT_EQ(std::pair(15000, 4), std::pair(highestRss, highestFds));
}

// The real process file system: the cycle sees growth in statm (in pages)
// and reads the status file only to log it.
TEST(SysResMonOwnProcessTest, ResidentGrowthSeenInStatmIsLogged) {
  LogCapture log;
  SysResMon::ProcessFiles files;
  files.Open(getpid());
  int32_t highestRss = 0;
  int32_t highestFds = 0;
  SysResMon::CheckProcessResConsumption("self", files, 1024, highestRss, highestFds);
  const std::vector<char> grown(8 << 20, 1);
  SysResMon::CheckProcessResConsumption("self", files, 1024, highestRss, highestFds);
  EXPECT_EQ(log.Count("MEM MAX: Process self, PID "), 2u) << log.Dump();
  EXPECT_EQ(log.Count("FD MAX: Process self, PID "), 1u);
}

TEST_F(SysResMonTest, ZombieScanGoesOnPastAFullSpawnerTableOrphansAndVanishedProcesses) {
  std::string names[21];
  for (int parent = 100; parent < 121; ++parent) {
    names[parent - 100] = "spawner" + std::to_string(parent);
    Add({.pid = parent, .name = names[parent - 100].c_str(), .threads = 2});
    Add({.pid = parent + 1000, .state = "Z (zombie)", .ppid = parent});
  }
  Add({.pid = 2000, .state = "Z (zombie)", .ppid = 100});
  Add({.pid = 50, .name = "orphan", .state = "Z (zombie)", .ppid = 49});
  AddVanished(51);
  Add({.pid = 52, .threads = 40});
  int32_t zombies = -1;
  int32_t threads = -1;
  ASSERT_EQ(StatusCode::SUCCESS, SysResMon::MonitorZombiesAndThreads(&zombies, &threads));
  EXPECT_EQ(std::pair(23, 21 * 2 + 23 + 40), std::pair(zombies, threads));
  EXPECT_EQ(20u, log_.Count(LoggerLevel::INFO, "Zombie spawner detected! Name:[spawner"));
  EXPECT_EQ(1u, log_.Count("Zombie spawner detected! Name:[spawner100], pid:[100], "
                           "zombies spawned:[2] \n"));
  // Listing order decides which parent is left out; exactly one is, its zombie still counted.
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR,
                           "No space for counting zombie spawner! process name [spawner"));
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR,
                           "Failed to find zombie's parent! Zombie name: [orphan], pid: [50] \n"));
  EXPECT_EQ(1u, log_.Count(LoggerLevel::DEBUG, "/51/status' file reader object\n")) << "vanished";
}

TEST_F(SysResMonTest, ProcessListIsSortedByResidentSizeAndCut) {
  Add({.pid = 3, .name = "small", .vmRssKb = 10, .vmHwmKb = 11});
  Add({.pid = 4, .name = "big", .vmRssKb = 9000, .vmHwmKb = 9100});
  Add({.pid = 5, .name = "middle", .vmRssKb = 500, .vmHwmKb = 600});
  SysResMon::LogProcessesMemConsumption(2);
  EXPECT_EQ(
      "PS: PID  NAME  VM_RSS_KB  VM_HWM_KB\nPS: 4  big  9000  9100\nPS: 5  middle  500  600\n",
      log_.Dump());
}

}  // namespace
