#pragma once

// Shared set-up of the monitored process tests: entities over the
// qwd_test_child helper, pid files in a temporary directory, and counts of
// the test process's own descriptors and children.

#include <gtest/gtest.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"
#include "watchdog/MonitoredProcess.h"

class MonitoredProcessTest : public ::testing::Test {
 protected:
  static constexpr char kChildName[] = "qwd_test_child";

  void SetUp() override;
  void TearDown() override;

  // An entity launching qwd_test_child with `mode` on the user agent's socket;
  // `extra` follows the socket name on the child's command line.
  std::unique_ptr<MonitoredProcess> Child(const std::string& mode,
                                          const std::vector<std::string>& extra = {},
                                          uint32_t connectTimeoutMsec = 5000,
                                          const IpcHandler* handlers = nullptr,
                                          int32_t handlerCount = 0);
  // An entity the watchdog does not launch, named `name`, without a channel.
  std::unique_ptr<MonitoredProcess> Watched(const char* name, bool checkLastSeen = true,
                                            int32_t maxLastSeenMsec = 20000);
  // Serves one request of the entity's child.
  StatusCode ServeOne(MonitoredProcess& process);
  std::string PidFileOf(const char* name) const { return pidDir_.File(std::string(name) + ".pid"); }

  LogCapture log_;
  TempDir pidDir_;
  // Strings and pointers handed to the entity as extraArgs; they outlive it.
  std::vector<std::string> argStrings_;
  std::vector<const char*> args_;
};

// Open descriptors of the test process.
int CountOwnDescriptors();
// Live or zombie children of the test process.
int CountOwnChildren();
// A child that exits at once, left unreaped: its /proc entry stays while
// every signal to it succeeds.
pid_t MakeZombie();
// A pid that belonged to a child already reaped.
pid_t MakeDeadPid();
// Blocks until the child has exited, without reaping it.
void AwaitExitWithoutReaping(pid_t pid);
