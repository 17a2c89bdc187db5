#include "watchdog/MonitoredModule.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <tuple>

#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "watchdog/Config.h"
#include "watchdog/KernelModuleApi.h"

namespace {

using Status = MonitoredEntityStatus;

constexpr char kListed[] = "nfmodule 65536 0 - Live 0xbf000000\n";
constexpr char kOther[] = "nf_conntrack 94208 3 nf_nat, Live 0xbf010000\n";
constexpr int kAll = 99;  // unload failures: every call
// The NUL inside catches an image handled as a string.
constexpr char kImageBytes[] =
    "\x7f"
    "ELF\0\1\2module-body";
const std::string kImage(kImageBytes, sizeof(kImageBytes) - 1);

// Lists its modules in a file that a load replaces, records the calls and
// fails them on request; installed while it lives.
struct FakeKernel final : KernelModuleApi {
  FakeKernel() { SetList(""); }
  ~FakeKernel() override { InstallKernelModuleApi(previous); }

  int InitModule(const void* image, unsigned long size, const char* params) override {
    ++loadCalls;
    loaded = std::string(static_cast<const char*>(image), size) + "|" + params;
    if (loadErrno == 0) SetList(lineOnLoad);
    return Result(loadErrno);
  }
  int DeleteModule(const char* name, unsigned int flags) override {
    unloaded = std::string(name) + "|" + std::to_string(flags);
    return Result(++unloadCalls <= unloadFailures ? unloadErrno : 0);
  }
  const char* ModulesListPath() override { return path.c_str(); }
  static int Result(int error) {
    errno = error;
    return error == 0 ? 0 : -1;
  }
  // Null: no list, as on a kernel without module support.
  void SetList(const char* text) {
    path = dir.File(text != nullptr ? "modules" : "none");
    if (text != nullptr) dir.Write("modules", text);
  }

  TempDir dir;
  std::string path;
  KernelModuleApi* previous = InstallKernelModuleApi(this);
  const char* lineOnLoad = kListed;
  int loadErrno = 0;
  int unloadFailures = 0;
  int unloadErrno = EBUSY;
  int loadCalls = 0;
  int unloadCalls = 0;
  std::string loaded;    // image|params of the last load
  std::string unloaded;  // name|flags of the last unload
};

class MonitoredModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Config::SetIntValue(CFG_PROC_MODULES_RETRIES, 3);
    dir_.Write("nfmodule.ko", kImage);
    module_ = Module("nfmodule.ko", "debug=1");
  }
  void TearDown() override { Config::ResetToDefaults(); }

  std::unique_ptr<MonitoredModule> Module(const char* binary, const char* args = nullptr) {
    return CreateMonitoredModule(dir_.path().c_str(), binary, "nfmodule", args);
  }

  LogCapture log_;
  FakeClock clock_;
  FakeKernel kernel_;
  TempDir dir_;
  std::unique_ptr<MonitoredModule> module_;
};

TEST_F(MonitoredModuleTest, StatusTextsCoverTheTableAndNothingBeyond) {
  const char* const kTexts[] = {"not running", "running", "failed", "timeout",
                                "restart",     "unknown", "N/A"};
  for (uint32_t value = 0; value < 7; ++value) {
    EXPECT_STREQ(MonitoredEntityStatusToStr(static_cast<Status>(value)), kTexts[value]);
  }
  EXPECT_STREQ(MonitoredEntityStatusToStr(static_cast<Status>(0xFFFFFFFFu)), "N/A");
}

TEST_F(MonitoredModuleTest, CreationNamesTheEntityAndDestructionLeavesTheModuleLoaded) {
  EXPECT_EQ(module_->GetType(), MonitoredEntityType::KERNEL_MODULE);
  EXPECT_EQ(module_->GetStatus(), Status::NOT_RUNNING);
  EXPECT_STREQ(module_->GetName(), "nfmodule");
  EXPECT_EQ(CreateMonitoredModule("/lib", "nfmodule.ko", nullptr, nullptr), nullptr);
  EXPECT_FALSE(log_.Contains("Destroying"));
  // No channel, and a warning on every ask.
  EXPECT_EQ(module_->GetIpcChannel(), nullptr);
  EXPECT_EQ(module_->GetIpcChannel(), nullptr);
  EXPECT_EQ(log_.Count(LoggerLevel::WARN, "This entity doesn't have a communication channel\n"),
            2u);
  module_.reset();
  EXPECT_EQ(kernel_.unloadCalls, 0);
  for (const std::string& line : {"Created Monitored module object for module 'nfmodule.ko' at '" +
                                      dir_.path() + "' with args 'debug=1'\n",
                                  std::string("Can't create monitored module with NULL path"),
                                  std::string("Destroying Monitored module object 'nfmodule'\n")}) {
    EXPECT_TRUE(log_.Contains(line)) << line;
  }
}

TEST_F(MonitoredModuleTest, AnyLineContainingTheNameCountsAsLoaded) {
  const std::pair<std::string, bool> kCases[] = {
      {kOther, false},
      {std::string(kOther) + "nfmodule_helper 4096 0 - Live 0x0\n", true},
      {"xt_mark 4096 1 nfmodule, Live 0x0\n", true},
      // Lines past the buffer are scanned in pieces, without overrun.
      {"big 1 0 " + std::string(2048, 'x') + "\n" + kOther, false},
      {"big 1 0 " + std::string(1500, 'x') + " nfmodule," + std::string(500, 'y') + "\n", true},
  };
  for (const auto& [list, expected] : kCases) {
    SCOPED_TRACE(list.substr(0, 40));
    kernel_.SetList(list.c_str());
    bool loaded = !expected;
    ASSERT_EQ(module_->IsModuleLoaded(&loaded), StatusCode::SUCCESS);
    EXPECT_EQ(loaded, expected);
  }
  kernel_.SetList(nullptr);
  bool loaded = true;
  EXPECT_EQ(module_->IsModuleLoaded(&loaded), StatusCode::FAILURE);
  EXPECT_TRUE(loaded);
  EXPECT_TRUE(log_.Contains("Can't create file reader, path " + kernel_.path + "\n"));
  EXPECT_EQ(module_->IsModuleLoaded(nullptr), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("ASSERT FAILED: NULL != isLoaded \n"));
}

TEST_F(MonitoredModuleTest, CheckStatusFollowsTheListWithinTheRetries) {
  // List (null: none), retries, status, a line logged.
  const std::tuple<const char*, int32_t, Status, const char*> kCases[] = {
      {kListed, 3, Status::RUNNING, "Module 'nfmodule' was verified!\n"},
      {kOther, 3, Status::FAILED, "Module 'nfmodule' is not loaded\n"},
      {nullptr, 3, Status::UNKNOWN, "IsModuleLoaded failed! try 2 of 3 \n"},
      {kListed, 0, Status::UNKNOWN, "Failed to check status of 'nfmodule' module\n"},
  };
  for (const auto& [list, retries, status, line] : kCases) {
    SCOPED_TRACE(line);
    log_.Clear();
    kernel_.SetList(list);
    Config::SetIntValue(CFG_PROC_MODULES_RETRIES, retries);
    module_->CheckStatus();
    EXPECT_EQ(module_->GetStatus(), status);
    EXPECT_TRUE(log_.Contains(line)) << log_.Dump();
    EXPECT_EQ(log_.Count("IsModuleLoaded failed!"), list != nullptr ? 0u : 3u);
    EXPECT_EQ(log_.Contains("Failed to check status"), status == Status::UNKNOWN);
  }
  EXPECT_EQ(clock_.SleepCalls(), 0u);

  log_.Clear();
  module_->SetStatus(Status::RESTART);
  module_->CheckStatus();
  EXPECT_EQ(module_->GetStatus(), Status::RESTART);
  EXPECT_FALSE(log_.Contains("Can't create file reader"));
}

TEST_F(MonitoredModuleTest, StartLoadsTheImageWaitsASecondAndVerifies) {
  ASSERT_EQ(module_->Start(), StatusCode::SUCCESS);
  EXPECT_EQ(module_->GetStatus(), Status::RUNNING);
  EXPECT_EQ(kernel_.loaded, kImage + "|debug=1");
  EXPECT_EQ(clock_.SleptMsec(), 1000);
  EXPECT_TRUE(log_.Contains("started module binary 'nfmodule.ko' successfully\n"));
  ASSERT_EQ(Module("nfmodule.ko")->Start(), StatusCode::SUCCESS);
  EXPECT_EQ(kernel_.loaded, kImage + "|");
}

TEST_F(MonitoredModuleTest, FailedStartsSayWhy) {
  // Image file, load errno, line listed after a load, status, a line logged.
  const std::tuple<const char*, int, const char*, Status, const char*> kCases[] = {
      {"absent.ko", 0, kListed, Status::NOT_RUNNING, "Can't create file reader\n"},
      {"nfmodule.ko", EEXIST, kListed, Status::UNKNOWN, "loading failed! error 17 (File exists)\n"},
      {"nfmodule.ko", 0, "", Status::FAILED, "Module 'nfmodule' is not loaded\n"},
  };
  for (const auto& [binary, loadErrno, lineOnLoad, status, line] : kCases) {
    SCOPED_TRACE(line);
    FakeKernel kernel;
    kernel.loadErrno = loadErrno;
    kernel.lineOnLoad = lineOnLoad;
    auto module = Module(binary);
    EXPECT_EQ(module->Start(), StatusCode::FAILURE);
    EXPECT_EQ(module->GetStatus(), status);
    EXPECT_TRUE(log_.Contains(line));
    EXPECT_EQ(kernel.loadCalls, status == Status::NOT_RUNNING ? 0 : 1);
  }
  // Only the load that the kernel took waits its second.
  EXPECT_EQ(clock_.SleepCalls(), 1u);
  EXPECT_FALSE(log_.Contains("started module binary"));
}

TEST_F(MonitoredModuleTest, StopRetriesEverySecondUpToElevenCalls) {
  // List (null: none), failing unloads, their errno, calls made.
  const std::tuple<const char*, int, int, int> kCases[] = {
      {kListed, 0, EBUSY, 1},
      {kListed, 2, EBUSY, 3},
      // Gone from the list after a failed call: no sleep, no retry.
      {kOther, kAll, ENOENT, 1},
      {kListed, kAll, EBUSY, 11},
      {nullptr, kAll, EBUSY, 11},
  };
  for (const auto& [list, failures, error, calls] : kCases) {
    SCOPED_TRACE(testing::Message() << failures << " failures, list " << (list != nullptr));
    log_.Clear();
    FakeClock clock;
    FakeKernel kernel;
    kernel.SetList(list);
    kernel.unloadFailures = failures;
    kernel.unloadErrno = error;
    const bool unloaded = calls < 11;
    EXPECT_EQ(module_->Stop(), unloaded ? StatusCode::SUCCESS : StatusCode::FAILURE);
    EXPECT_EQ(module_->GetStatus(), unloaded ? Status::NOT_RUNNING : Status::UNKNOWN);
    EXPECT_EQ(kernel.unloadCalls, calls);
    EXPECT_EQ(kernel.unloaded, "nfmodule|" + std::to_string(O_NONBLOCK));
    EXPECT_EQ(log_.Count(LoggerLevel::INFO, "Failed to unload module, error "),
              static_cast<size_t>(std::min(calls, failures)));
    EXPECT_EQ(clock.SleptMsec(), 1000 * (calls - 1));
    EXPECT_EQ(clock.SleepCalls(), calls - 1u);
    EXPECT_TRUE(log_.Contains(unloaded ? "Unload module 'nfmodule'\n"
                                       : "Failed to unload the module - max tries exceeded 10, "
                                         "for module 'nfmodule'\n"));
  }
  EXPECT_TRUE(log_.Contains("Failed to unload module, error 16 (Device or resource busy)\n"));
}

// This machine's kernel has no module support: the real system call can
// only be seen refusing.
TEST_F(MonitoredModuleTest, RealKernelRefusesABogusImage) {
  KernelModuleApi* fake = InstallKernelModuleApi(nullptr);
  dir_.Write("bogus.ko", "not an ELF image");
  auto module = Module("bogus.ko");
  EXPECT_EQ(module->Start(), StatusCode::FAILURE);
  EXPECT_EQ(module->GetStatus(), Status::UNKNOWN);
  EXPECT_TRUE(log_.Contains("Module loading failed! error "));
  InstallKernelModuleApi(fake);
}

}  // namespace
