#include "tests/agent/infra/utils/FakeProcTree.h"

#include <filesystem>
#include <fstream>

#include "common/ProcRoot.h"

FakeProcTree::FakeProcTree() { SetProcRoot(dir_.path().c_str()); }

FakeProcTree::~FakeProcTree() { SetProcRoot(nullptr); }

void FakeProcTree::WriteFile(const std::string& relativePath, const std::string& content) {
  const std::filesystem::path full = std::filesystem::path(dir_.path()) / relativePath;
  std::filesystem::create_directories(full.parent_path());
  std::ofstream(full, std::ios::binary | std::ios::trunc) << content;
}

void FakeProcTree::Add(const FakeProcess& p) {
  const std::string dir = std::to_string(p.pid);
  WriteFile(dir + "/status", "Name:\t" + p.name + "\nUmask:\t0022\nState:\t" + p.state +
                                 "\nTgid:\t" + std::to_string(p.pid) + "\nPid:\t" +
                                 std::to_string(p.pid) + "\nPPid:\t" + std::to_string(p.ppid) +
                                 "\nTracerPid:\t0\nFDSize:\t" + std::to_string(p.fdSize) +
                                 "\nVmPeak:\t 9000 kB\nVmHWM:\t" + std::to_string(p.vmHwmKb) +
                                 " kB\nVmRSS:\t" + std::to_string(p.vmRssKb) + " kB\nThreads:\t" +
                                 std::to_string(p.threads) + "\nvoluntary_ctxt_switches:\t7\n");
  std::filesystem::create_directories(dir_.path() + "/" + dir + "/fd");
  for (int fd = 0; fd < p.openFds; ++fd) WriteFile(dir + "/fd/" + std::to_string(fd), "");
}

void FakeProcTree::AddVanished(int pid) {
  std::filesystem::create_directories(dir_.path() + "/" + std::to_string(pid));
}
