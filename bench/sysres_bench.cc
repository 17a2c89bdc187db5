// Cost of the resource checks that the watchdog runs on the router: the
// whole-system zombie and thread scan, and the watch-cycle check of one
// process. Each is measured beside a baseline that only makes the same reads
// with bare system calls and parses nothing, so the ratio shows what the
// monitor adds over the kernel's own cost.

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "common/ProcRoot.h"
#include "watchdog/resources/SysResourcesMonitoring.h"

namespace {

constexpr int kPreparedProcesses = 1000;

// A process tree of 1000 processes whose status files are this process's own,
// renamed; every 50th is a zombie of the process before it.
class PreparedProcTree {
 public:
  PreparedProcTree() {
    char pattern[] = "/tmp/qwd-sysres-bench-XXXXXX";
    root_ = mkdtemp(pattern);
    // The own status without the lines that each process gets its own of.
    std::ifstream in("/proc/self/status");
    std::string tail;
    for (std::string line; std::getline(in, line);) {
      if (line.rfind("Name:", 0) != 0 && line.rfind("State:", 0) != 0 &&
          line.rfind("PPid:", 0) != 0) {
        tail += line + "\n";
      }
    }
    for (int pid = 1; pid <= kPreparedProcesses; ++pid) {
      const bool zombie = pid % 50 == 0;
      const std::string dir = root_ + "/" + std::to_string(pid);
      std::filesystem::create_directories(dir + "/fd");
      std::ofstream(dir + "/status")
          << "Name:\tproc" << pid << "\nState:\t" << (zombie ? "Z (zombie)" : "S (sleeping)")
          << "\nPPid:\t" << (zombie ? pid - 1 : 1) << "\n"
          << tail;
    }
  }
  ~PreparedProcTree() { std::filesystem::remove_all(root_); }
  const std::string& root() const { return root_; }

 private:
  std::string root_;
};

const PreparedProcTree& Tree() {
  static const PreparedProcTree tree;
  return tree;
}

// Reads every numeric entry's status with bare open/read/close under root.
void ReadAllStatusesRaw(const char* root) {
  char buffer[4096];
  DIR* dir = opendir(root);
  for (const dirent* entry = readdir(dir); entry != nullptr; entry = readdir(dir)) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
    const std::string path = std::string(root) + "/" + entry->d_name + "/status";
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    benchmark::DoNotOptimize(read(fd, buffer, sizeof(buffer)));
    close(fd);
  }
  closedir(dir);
}

void BM_Baseline_RawStatusScan(benchmark::State& state, bool prepared) {
  const std::string root = prepared ? Tree().root() : "/proc";
  for (auto _ : state) ReadAllStatusesRaw(root.c_str());
}
BENCHMARK_CAPTURE(BM_Baseline_RawStatusScan, prepared1000, true);
BENCHMARK_CAPTURE(BM_Baseline_RawStatusScan, realProc, false);

void BM_MonitorZombiesAndThreads(benchmark::State& state, bool prepared) {
  SetProcRoot(prepared ? Tree().root().c_str() : nullptr);
  int32_t zombies = 0;
  int32_t threads = 0;
  for (auto _ : state) {
    SysResMon::MonitorZombiesAndThreads(&zombies, &threads);
    benchmark::DoNotOptimize(zombies);
  }
  state.counters["zombies"] = zombies;
  state.counters["threads"] = threads;
  SetProcRoot(nullptr);
}
BENCHMARK_CAPTURE(BM_MonitorZombiesAndThreads, prepared1000, true);
BENCHMARK_CAPTURE(BM_MonitorZombiesAndThreads, realProc, false);

// The same reads as one check of the own process: its status file and its
// descriptor directory, with bare system calls.
void BM_Baseline_RawOwnCheck(benchmark::State& state) {
  const std::string status = "/proc/" + std::to_string(getpid()) + "/status";
  const std::string fdDir = "/proc/" + std::to_string(getpid()) + "/fd";
  char buffer[4096];
  for (auto _ : state) {
    const int fd = open(status.c_str(), O_RDONLY | O_CLOEXEC);
    while (read(fd, buffer, sizeof(buffer)) > 0) {
    }
    close(fd);
    DIR* dir = opendir(fdDir.c_str());
    int entries = 0;
    while (readdir(dir) != nullptr) ++entries;
    closedir(dir);
    benchmark::DoNotOptimize(entries);
  }
}
BENCHMARK(BM_Baseline_RawOwnCheck);

// One watch-cycle check of the own process, as the watchdog makes every two
// seconds. The peaks are already above anything real, so nothing is logged.
void BM_CheckProcessResConsumption(benchmark::State& state) {
  int32_t highestRss = 0x7fffffff - SysResMon::kMemoryStepKb;
  int32_t highestFds = 0x7fffffff;
  SysResMon::ProcessFiles files;
  files.Open(getpid());
  for (auto _ : state) {
    SysResMon::CheckProcessResConsumption(nullptr, files, SysResMon::kMemoryStepKb, highestRss,
                                          highestFds);
  }
}
BENCHMARK(BM_CheckProcessResConsumption);
// A fixed count, for counting its system calls under strace.
BENCHMARK(BM_CheckProcessResConsumption)->Iterations(1000);

}  // namespace

BENCHMARK_MAIN();
