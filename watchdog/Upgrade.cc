// The agent's cleanup after every stop, and the hand-over to a newer version
// that the agent has downloaded: the watchdog becomes the new version's
// control script, under the same pid.

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/CleanExec.h"
#include "common/FileUtils.h"
#include "common/Log.h"
#include "common/Shell.h"
#include "watchdog/Config.h"
#include "watchdog/Installation.h"
#include "watchdog/Watchdog.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_WATCHDOG;
constexpr char kControlScript[] = "quillmor_control.sh";
constexpr char kControlOption[] = "start";
// A cleanup started once termination is already requested gets this long, so
// that the whole end stays within two seconds.
constexpr uint32_t kCleanupOnTerminationMsec = 700;

}  // namespace

StatusCode Watchdog::RunCleanupScript() {
  char script[kPathSize];
  std::snprintf(script, sizeof(script), "%s/%s/%s", Config::GetStrValue(CFG_DOWNLOAD_DIR),
                currentVersion_.data(), "cleanup.sh");
  QWD_LOG_INFO(kComponent, "Run cleanup script\n");
  // The path is the configuration's: quoted, a blank in it stays a blank.
  char command[2 * kPathSize];
  QuoteForShell(script, command, sizeof(command));
  // A script that ran and failed is still a cleanup done; only one the shell
  // could not run at all counts, and one killed at its time limit or by a
  // termination that arrived while it ran.
  const bool terminating = terminationRequested != 0;
  const int result =
      GetShell().Run(command, terminating ? kCleanupOnTerminationMsec : kShellCommandLimitMsec,
                     terminating ? nullptr : &terminationRequested);
  if (Installation::ShellCommandFailed(result)) {
    QWD_LOG_ERROR(kComponent, "Failed doing agent cleanup\n");
    return StatusCode::FAILURE;
  }
  return StatusCode::SUCCESS;
}

void Watchdog::UpgradeWatchdog() {
  QWD_LOG_INFO(kComponent,
               "Agent performed version upgrade from [%s] to [%s]. Launching new watchdog by %s "
               "script\n",
               currentVersion_.data(), newestVersion_.data(), kControlScript);
  char dir[kPathSize];
  if (!Installation::GetVersionDirectory(newestVersion_.data(), dir)) {
    QWD_LOG_ERROR(kComponent,
                  "Failed getting new version path after a version upgrade. Aborting\n");
    WatchdogExit(0);
  }
  char script[kPathSize];
  int length = std::snprintf(script, sizeof(script), "%s/%s", dir, kControlScript);
  if (length >= static_cast<int>(sizeof(script))) {
    QWD_LOG_ERROR(kComponent, "Failed to create %s path, ret=%d\n", kControlScript, length);
    WatchdogExit(0);
  }
  char option[kPathSize];
  length = std::snprintf(option, sizeof(option), "%s", kControlOption);
  if (length >= static_cast<int>(sizeof(option))) {
    QWD_LOG_ERROR(kComponent, "Failed to create %s options, ret=%d\n", kControlScript, length);
    WatchdogExit(0);
  }
  if (FileChangeMode(script, 0111) != StatusCode::SUCCESS) {
    QWD_LOG_ERROR(kComponent, "Failed chmod '%s' mode '%s'\n", script, "0111");
    QWD_LOG_ERROR(kComponent, "Failed setting new %s perm after a version upgrade. Aborting\n",
                  kControlScript);
    WatchdogExit(0);
  }
  policy_.Teardown();
  if (terminationRequested != 0) {
    QWD_LOG_WARN(kComponent, "Watchdog received termination signal during upgrade\n");
    WatchdogExit(0);
  }
  QWD_LOG_INFO(kComponent, "Going to launch: %s %s\n", script, option);
  char* const argv[] = {script, option, nullptr};
  // The script starts clean, in the watchdog's place: same pid, same group.
  PrepareExec(false);
  execv(script, argv);
  QWD_LOG_ERROR(kComponent, "execv failed! errno %s(%d)\n", std::strerror(errno), errno);
  WatchdogExit(0);
}
