#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "agent/src/infra/utils/SysResourcesMonitoring.h"
#include "common/ProcRoot.h"
#include "tests/agent/infra/utils/FakeProcTree.h"
#include "tests/support/LogCapture.h"

namespace {

class SysResProcessScanTest : public ::testing::Test {
 protected:
  FakeProcTree proc_;
  LogCapture log_;
};

TEST_F(SysResProcessScanTest, CountsOnlyNumericDirectories) {
  proc_.Add({.pid = 1});
  proc_.Add({.pid = 300});
  proc_.WriteFile("self/status", "Name:\tself\n");
  proc_.WriteFile("42", "a file, not a process");
  EXPECT_EQ(2, SysResMon::CountProcesses());
  SetProcRoot((proc_.root() + "/absent").c_str());
  EXPECT_EQ(-1, SysResMon::CountProcesses());
  EXPECT_TRUE(log_.Contains("Can't read directory " + proc_.root() + "/absent\n"));
}

TEST_F(SysResProcessScanTest, TwentyOneZombieParentsOverflowTheSpawnerTable) {
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

TEST_F(SysResProcessScanTest, OrphanedZombieAndVanishedProcessDoNotStopTheScan) {
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

TEST_F(SysResProcessScanTest, NullOutputsAreReportedAndAnUnreadableRootFails) {
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

TEST_F(SysResProcessScanTest, ProcessListIsSortedByResidentSizeAndCut) {
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
TEST(SysResRealProcTest, FindsOwnZombieChildAndOwnStatus) {
  LogCapture log;
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
  EXPECT_TRUE(log.Contains("Zombie spawner detected! Name:[" + std::string(self.name.data()) +
                           "], pid:[" + std::to_string(getpid()) + "], zombies spawned:[1] \n"))
      << log.Dump();

  int32_t highestRss = 0;
  int32_t highestFds = 0;
  SysResMon::CheckProcessResConsumption(nullptr, getpid(), 1024, highestRss, highestFds);
  EXPECT_EQ(self.vmRssKb > 0, highestRss > 0);
  EXPECT_GE(highestFds, 3);
  waitpid(child, nullptr, 0);
}

}  // namespace
