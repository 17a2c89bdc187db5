#include "watchdog/entities/MonitoredModule.h"

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
#include "watchdog/entities/KernelModuleApi.h"

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

TEST_F(MonitoredModuleTest, CheckStatusFindsTheNameInAnyLineWithinTheRetries) {
  const std::string helper = std::string(kOther) + "nfmodule_helper 4096 0 - Live 0x0\n";
  // A line past the buffer is scanned in pieces, without overrun.
  const std::string longOther = "big 1 0 " + std::string(2048, 'x') + "\n" + kOther;
  // List (null: none), retries, status, a line logged.
  const std::tuple<const char*, int32_t, Status, const char*> kCases[] = {
      {kListed, 3, Status::RUNNING, "Module 'nfmodule' was verified!\n"},
      {helper.c_str(), 3, Status::RUNNING, "Module 'nfmodule' was verified!\n"},
      {kOther, 3, Status::FAILED, "Module 'nfmodule' is not loaded\n"},
      {longOther.c_str(), 3, Status::FAILED, "Module 'nfmodule' is not loaded\n"},
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
  }
  EXPECT_EQ(clock_.SleepCalls(), 0u);
}

TEST_F(MonitoredModuleTest, StartLoadsTheImageWaitsASecondAndVerifiesOrSaysWhyNot) {
  ASSERT_EQ(module_->Start(), StatusCode::SUCCESS);
  EXPECT_EQ(module_->GetStatus(), Status::RUNNING);
  EXPECT_EQ(kernel_.loaded, kImage + "|debug=1");
  ASSERT_EQ(Module("nfmodule.ko")->Start(), StatusCode::SUCCESS);
  EXPECT_EQ(kernel_.loaded, kImage + "|");
  // The watchdog's exit leaves its modules loaded.
  module_.reset();
  EXPECT_EQ(kernel_.unloadCalls, 0);

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
  // Only the loads that the kernel took wait their second.
  EXPECT_EQ(clock_.SleptMsec(), 3000);
}

TEST_F(MonitoredModuleTest, StopRetriesEverySecondUpToElevenCalls) {
  // List (null: none), failing unloads, their errno, calls made.
  const std::tuple<const char*, int, int, int> kCases[] = {
      {kListed, 0, EBUSY, 1},
      {kListed, 2, EBUSY, 3},
      // Gone from the list after a failed call: no sleep, no retry.
      {kOther, kAll, ENOENT, 1},
      {kListed, kAll, EBUSY, 11},
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
    EXPECT_TRUE(log_.Contains(unloaded ? "Unload module 'nfmodule'\n"
                                       : "Failed to unload the module - max tries exceeded 10, "
                                         "for module 'nfmodule'\n"));
  }
  EXPECT_TRUE(log_.Contains("Failed to unload module, error 16 (Device or resource busy)\n"));
}

}  // namespace
