#include "agent/src/infra/logger/ComponentsLogLevelManager.h"

#include <gtest/gtest.h>

namespace {

constexpr int32_t kInfo = static_cast<int32_t>(LoggerLevel::INFO);

class ComponentsLogLevelManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { levels_.Init(); }
  ComponentsLogLevelManager levels_;
};

TEST_F(ComponentsLogLevelManagerTest, DefaultsAreInfoExceptSnifferAndNonComponentRowsZero) {
  for (uint32_t row = 0; row < kFirstLogComponent; ++row) {
    EXPECT_EQ(levels_.GetComponentLogLevel(row), 0) << row;
  }
  for (uint32_t component = kFirstLogComponent; component < kNumConfigurationVars; ++component) {
    const int32_t expected = component == LOGGER_COMPONENT_SNIFFER ? 0 : kInfo;
    EXPECT_EQ(levels_.GetComponentLogLevel(component), expected) << component;
  }
  EXPECT_EQ(levels_.GetComponentLogLevel(372), static_cast<int32_t>(LoggerLevel::INVALID));
  EXPECT_EQ(levels_.GetComponentLogLevel(0xFFFFFFFFu), static_cast<int32_t>(LoggerLevel::INVALID));
}

TEST_F(ComponentsLogLevelManagerTest, SetRefusesNonComponentsUnknownRowsAndBadLevels) {
  EXPECT_FALSE(levels_.SetComponentLogLevel(0, 2));
  EXPECT_FALSE(levels_.SetComponentLogLevel(166, 2));
  EXPECT_FALSE(levels_.SetComponentLogLevel(372, 2));
  EXPECT_FALSE(levels_.SetComponentLogLevel(LOGGER_COMPONENT_WATCHDOG, 6));
  EXPECT_EQ(levels_.GetComponentLogLevel(0), 0);
  EXPECT_EQ(levels_.GetComponentLogLevel(LOGGER_COMPONENT_WATCHDOG), kInfo);

  EXPECT_TRUE(levels_.SetComponentLogLevel(LOGGER_COMPONENT_CSP_OPS, 5));
  EXPECT_TRUE(levels_.SetComponentLogLevel(LOGGER_COMPONENT_SHELL_ACCESS_BLOCKING_CHAIN_LINK, 0));
  EXPECT_EQ(levels_.GetComponentLogLevel(LOGGER_COMPONENT_CSP_OPS), 5);
  EXPECT_EQ(levels_.GetComponentLogLevel(LOGGER_COMPONENT_SHELL_ACCESS_BLOCKING_CHAIN_LINK), 0);
}

}  // namespace
