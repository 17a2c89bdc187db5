#include "watchdog/MonitoredModule.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/support/FakeClock.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "tests/watchdog/entities/FakeKernel.h"
#include "watchdog/Config.h"

namespace {

constexpr char kListedLine[] = "nfmodule 65536 0 - Live 0xbf000000\n";
constexpr char kOtherLine[] = "nf_conntrack 94208 3 nf_nat, Live 0xbf010000\n";

class MonitoredModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Config::SetIntValue(CFG_PROC_MODULES_RETRIES, 3);
    static constexpr char kImage[] =
        "\x7f"
        "ELF\0\1\2module-body";
    image_ = dir_.Write("nfmodule.ko", std::string(kImage, sizeof(kImage) - 1));
    module_ = CreateMonitoredModule(dir_.path().c_str(), "nfmodule.ko", "nfmodule", "debug=1");
    ASSERT_NE(module_, nullptr);
    kernel_.SetLineOnLoad(kListedLine);
  }
  void TearDown() override { Config::ResetToDefaults(); }

  LogCapture log_;
  FakeClock clock_;
  FakeKernel kernel_;
  TempDir dir_;
  std::string image_;
  std::unique_ptr<MonitoredModule> module_;
};

TEST_F(MonitoredModuleTest, StatusTextsCoverTheTableAndNothingBeyond) {
  EXPECT_STREQ(MonitoredEntityStatusToStr(MonitoredEntityStatus::NOT_RUNNING), "not running");
  EXPECT_STREQ(MonitoredEntityStatusToStr(MonitoredEntityStatus::RESTART), "restart");
  EXPECT_STREQ(MonitoredEntityStatusToStr(MonitoredEntityStatus::UNKNOWN), "unknown");
  EXPECT_STREQ(MonitoredEntityStatusToStr(static_cast<MonitoredEntityStatus>(6)), "N/A");
  EXPECT_STREQ(MonitoredEntityStatusToStr(static_cast<MonitoredEntityStatus>(0xFFFFFFFFu)), "N/A");
}

TEST_F(MonitoredModuleTest, CreationNamesTheEntityAndRefusesNullNames) {
  EXPECT_EQ(module_->GetType(), MonitoredEntityType::KERNEL_MODULE);
  EXPECT_EQ(module_->GetStatus(), MonitoredEntityStatus::NOT_RUNNING);
  EXPECT_STREQ(module_->GetName(), "nfmodule");
  EXPECT_TRUE(log_.Contains("Created Monitored module object for module 'nfmodule.ko' at '" +
                            dir_.path() + "' with args 'debug=1'\n"));
  EXPECT_EQ(CreateMonitoredModule(dir_.path().c_str(), "nfmodule.ko", nullptr, nullptr), nullptr);
  EXPECT_TRUE(log_.Contains("Can't create monitored module with NULL path"));
  EXPECT_FALSE(log_.Contains("Destroying"));
}

TEST_F(MonitoredModuleTest, HasNoChannelAndWarnsOnEveryAsk) {
  MonitoredEntity& entity = *module_;
  EXPECT_EQ(entity.GetIpcChannel(), nullptr);
  EXPECT_EQ(entity.GetIpcChannel(), nullptr);
  EXPECT_EQ(log_.Count(LoggerLevel::WARN, "This entity doesn't have a communication channel\n"),
            2u);
}

TEST_F(MonitoredModuleTest, DestructionLogsAndLeavesTheModuleLoaded) {
  kernel_.SetModulesList(kListedLine);
  module_.reset();
  EXPECT_TRUE(log_.Contains("Destroying Monitored module object 'nfmodule'\n"));
  EXPECT_EQ(kernel_.UnloadCalls(), 0);
}

TEST_F(MonitoredModuleTest, NameInsideAnotherModulesLineCountsAsLoaded) {
  bool loaded = true;
  kernel_.SetModulesList(kOtherLine);
  ASSERT_EQ(module_->IsModuleLoaded(&loaded), StatusCode::SUCCESS);
  EXPECT_FALSE(loaded);

  kernel_.SetModulesList(std::string(kOtherLine) + "nfmodule_helper 4096 0 - Live 0x0\n");
  ASSERT_EQ(module_->IsModuleLoaded(&loaded), StatusCode::SUCCESS);
  EXPECT_TRUE(loaded);

  kernel_.SetModulesList("xt_mark 4096 1 nfmodule, Live 0x0\n");
  ASSERT_EQ(module_->IsModuleLoaded(&loaded), StatusCode::SUCCESS);
  EXPECT_TRUE(loaded);
}

TEST_F(MonitoredModuleTest, TwoKilobyteLineIsScannedInPiecesWithoutOverrun) {
  bool loaded = true;
  kernel_.SetModulesList("big 1 0 " + std::string(2048, 'x') + "\n" + kOtherLine);
  ASSERT_EQ(module_->IsModuleLoaded(&loaded), StatusCode::SUCCESS);
  EXPECT_FALSE(loaded);

  kernel_.SetModulesList("big 1 0 " + std::string(1500, 'x') + " nfmodule," +
                         std::string(500, 'y') + "\n");
  ASSERT_EQ(module_->IsModuleLoaded(&loaded), StatusCode::SUCCESS);
  EXPECT_TRUE(loaded);
}

TEST_F(MonitoredModuleTest, UnreadableListLeavesTheAnswerUntouched) {
  kernel_.RemoveModulesList();
  bool loaded = true;
  EXPECT_EQ(module_->IsModuleLoaded(&loaded), StatusCode::FAILURE);
  EXPECT_TRUE(loaded);
  EXPECT_TRUE(log_.Contains(std::string("Can't create file reader, path ") +
                            kernel_.ModulesListPath() + "\n"));
  EXPECT_EQ(module_->IsModuleLoaded(nullptr), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("ASSERT FAILED: NULL != isLoaded \n"));
}

TEST_F(MonitoredModuleTest, CheckStatusFollowsTheList) {
  kernel_.SetModulesList(kListedLine);
  module_->CheckStatus();
  EXPECT_EQ(module_->GetStatus(), MonitoredEntityStatus::RUNNING);
  EXPECT_TRUE(log_.Contains("Module 'nfmodule' was verified!\n"));

  kernel_.SetModulesList(kOtherLine);
  module_->CheckStatus();
  EXPECT_EQ(module_->GetStatus(), MonitoredEntityStatus::FAILED);
  EXPECT_TRUE(log_.Contains("Module 'nfmodule' is not loaded\n"));
}

TEST_F(MonitoredModuleTest, CheckStatusGivesUpAfterTheConfiguredRetries) {
  kernel_.RemoveModulesList();
  module_->CheckStatus();
  EXPECT_EQ(module_->GetStatus(), MonitoredEntityStatus::UNKNOWN);
  EXPECT_TRUE(log_.Contains("IsModuleLoaded failed! try 0 of 3 \n"));
  EXPECT_TRUE(log_.Contains("IsModuleLoaded failed! try 2 of 3 \n"));
  EXPECT_FALSE(log_.Contains("try 3 of 3"));
  EXPECT_TRUE(log_.Contains("Failed to check status of 'nfmodule' module\n"));
  EXPECT_EQ(clock_.SleepCalls(), 0u);

  log_.Clear();
  kernel_.SetModulesList(kListedLine);
  Config::SetIntValue(CFG_PROC_MODULES_RETRIES, 0);
  module_->CheckStatus();
  EXPECT_EQ(module_->GetStatus(), MonitoredEntityStatus::UNKNOWN);
  EXPECT_TRUE(log_.Contains("Failed to check status of 'nfmodule' module\n"));
  EXPECT_FALSE(log_.Contains("was verified"));
}

TEST_F(MonitoredModuleTest, CheckStatusLeavesARestartAlone) {
  kernel_.RemoveModulesList();
  module_->SetStatus(MonitoredEntityStatus::RESTART);
  module_->CheckStatus();
  EXPECT_EQ(module_->GetStatus(), MonitoredEntityStatus::RESTART);
  EXPECT_FALSE(log_.Contains("Can't create file reader"));
}

TEST_F(MonitoredModuleTest, StartLoadsTheImageWaitsASecondAndVerifies) {
  ASSERT_EQ(module_->Start(), StatusCode::SUCCESS);
  EXPECT_EQ(module_->GetStatus(), MonitoredEntityStatus::RUNNING);
  EXPECT_EQ(kernel_.LoadedImage(), ReadWholeFile(image_));
  EXPECT_EQ(kernel_.LoadedParams(), "debug=1");
  EXPECT_EQ(clock_.SleptMsec(), 1000);
  EXPECT_TRUE(log_.Contains("started module binary 'nfmodule.ko' successfully\n"));
}

TEST_F(MonitoredModuleTest, StartWithoutArgsPassesAnEmptyParameterString) {
  auto bare = CreateMonitoredModule(dir_.path().c_str(), "nfmodule.ko", "nfmodule", nullptr);
  ASSERT_EQ(bare->Start(), StatusCode::SUCCESS);
  EXPECT_EQ(kernel_.LoadedParams(), "");
}

TEST_F(MonitoredModuleTest, StartThatLoadsButIsNotListedFails) {
  kernel_.SetLineOnLoad("");
  EXPECT_EQ(module_->Start(), StatusCode::FAILURE);
  EXPECT_EQ(module_->GetStatus(), MonitoredEntityStatus::FAILED);
  EXPECT_FALSE(log_.Contains("started module binary"));
}

TEST_F(MonitoredModuleTest, StartRefusedByTheKernelIsUnknown) {
  kernel_.FailLoads(EEXIST);
  EXPECT_EQ(module_->Start(), StatusCode::FAILURE);
  EXPECT_EQ(module_->GetStatus(), MonitoredEntityStatus::UNKNOWN);
  EXPECT_TRUE(log_.Contains("Module loading failed! error 17 (File exists)\n"));
  EXPECT_EQ(clock_.SleepCalls(), 0u);
}

TEST_F(MonitoredModuleTest, StartWithAnUnreadableImageNeverCallsTheKernel) {
  auto missing = CreateMonitoredModule(dir_.path().c_str(), "absent.ko", "nfmodule", nullptr);
  EXPECT_EQ(missing->Start(), StatusCode::FAILURE);
  EXPECT_TRUE(log_.Contains("Can't create file reader\n"));
  EXPECT_EQ(kernel_.LoadCalls(), 0);
  EXPECT_EQ(missing->GetStatus(), MonitoredEntityStatus::NOT_RUNNING);
}

TEST_F(MonitoredModuleTest, StopUnloadsNonBlockingAtTheFirstCall) {
  kernel_.SetModulesList(std::string(kOtherLine) + kListedLine);
  ASSERT_EQ(module_->Stop(), StatusCode::SUCCESS);
  EXPECT_EQ(module_->GetStatus(), MonitoredEntityStatus::NOT_RUNNING);
  EXPECT_EQ(kernel_.UnloadCalls(), 1);
  EXPECT_EQ(kernel_.LastUnloadFlags(), static_cast<unsigned>(O_NONBLOCK));
  EXPECT_EQ(kernel_.ModulesList(), kOtherLine);
  EXPECT_TRUE(log_.Contains("Unload module 'nfmodule'\n"));
}

TEST_F(MonitoredModuleTest, StopRetriesEverySecondUntilTheUnloadSucceeds) {
  kernel_.SetModulesList(kListedLine);
  kernel_.FailUnloads(2);
  ASSERT_EQ(module_->Stop(), StatusCode::SUCCESS);
  EXPECT_EQ(kernel_.UnloadCalls(), 3);
  EXPECT_EQ(clock_.SleepCalls(), 2u);
  EXPECT_EQ(log_.Count(LoggerLevel::INFO,
                       "Failed to unload module, error 16 (Device or resource busy)\n"),
            2u);
  EXPECT_EQ(module_->GetStatus(), MonitoredEntityStatus::NOT_RUNNING);
}

TEST_F(MonitoredModuleTest, FailedUnloadOfAModuleAlreadyGoneNeedsNoSleep) {
  kernel_.SetModulesList(kOtherLine);
  kernel_.FailUnloads(-1, ENOENT);
  ASSERT_EQ(module_->Stop(), StatusCode::SUCCESS);
  EXPECT_EQ(kernel_.UnloadCalls(), 1);
  EXPECT_EQ(clock_.SleepCalls(), 0u);
  EXPECT_EQ(module_->GetStatus(), MonitoredEntityStatus::NOT_RUNNING);
}

TEST_F(MonitoredModuleTest, ModuleThatNeverUnloadsCostsElevenCallsAndTenSeconds) {
  kernel_.SetModulesList(kListedLine);
  kernel_.FailUnloads(-1);
  EXPECT_EQ(module_->Stop(), StatusCode::FAILURE);
  EXPECT_EQ(kernel_.UnloadCalls(), 11);
  EXPECT_EQ(clock_.SleepCalls(), 10u);
  EXPECT_EQ(clock_.SleptMsec(), 10000);
  EXPECT_EQ(module_->GetStatus(), MonitoredEntityStatus::UNKNOWN);
  EXPECT_TRUE(log_.Contains(
      "Failed to unload the module - max tries exceeded 10, for module 'nfmodule'\n"));
}

TEST_F(MonitoredModuleTest, UnreadableListDuringUnloadKeepsRetrying) {
  kernel_.RemoveModulesList();
  kernel_.FailUnloads(-1);
  EXPECT_EQ(module_->Stop(), StatusCode::FAILURE);
  EXPECT_EQ(kernel_.UnloadCalls(), 11);
  EXPECT_EQ(clock_.SleepCalls(), 10u);
}

// This machine's kernel has no module support, so only the refusal of the
// real system call can be seen here.
TEST(MonitoredModuleRealKernelTest, RealLoadOfABogusImageIsRefused) {
  Config::SetIntValue(CFG_PROC_MODULES_RETRIES, 3);
  LogCapture log;
  TempDir dir;
  dir.Write("bogus.ko", "not an ELF image");
  auto module = CreateMonitoredModule(dir.path().c_str(), "bogus.ko", "qwd_bogus_module", nullptr);
  EXPECT_EQ(module->Start(), StatusCode::FAILURE);
  EXPECT_EQ(module->GetStatus(), MonitoredEntityStatus::UNKNOWN);
  EXPECT_TRUE(log.Contains("Module loading failed! error "));
  Config::ResetToDefaults();
}

}  // namespace
