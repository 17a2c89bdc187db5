// The termination handler against the real logger. A SIGTERM used to be able
// to land while this thread held the logger's lock: its line was dropped (or,
// in the instants around taking and releasing the lock, the handler waited
// for itself for ever). Here a console on a pipe nobody reads raises SIGPIPE
// inside the logger, and the handler runs from there.

#include <stdio_ext.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include <gtest/gtest.h>

#include "logger/Logger.h"
#include "tests/support/TempDir.h"
#include "watchdog/Watchdog.h"

namespace {

volatile std::sig_atomic_t g_pipeSignals = 0;

// The termination handler for the first SIGPIPE; later ones are ignored.
void OnSigpipe(int signalNumber, siginfo_t* info, void* context) {
  if (g_pipeSignals == 0) TermSignalHandler(signalNumber, info, context);
  g_pipeSignals = 1;
}

TEST(TermSignalTest, HandlerLineIsKeptWhenTheSignalInterruptsTheLogger) {
  TempDir dir;
  auto console = LoggerConfig::CreateConsoleLoggerConfig();
  auto file = LoggerConfig::CreateFileLoggerConfig(dir.path().c_str(), "wd", 1 << 20, 2, 1);
  ASSERT_TRUE(Logger::InitLogger(console.get(), file.get(), nullptr));
  Logger::SetLoggerTargetEnableState(Logger::kConsoleTarget, 1);
  Logger::SetLoggerTargetEnableState(Logger::kFileTarget, 1);
  struct sigaction action {
  }, previous{};
  action.sa_sigaction = OnSigpipe;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGPIPE, &action, &previous);
  std::fflush(stdout);
  const int savedStdout = dup(1);
  int brokenPipe[2];
  ASSERT_EQ(pipe(brokenPipe), 0);
  close(brokenPipe[0]);
  dup2(brokenPipe[1], 1);
  close(brokenPipe[1]);
  for (int i = 0; i < 1000 && g_pipeSignals == 0; ++i) QWD_LOG_ERROR(228, "filling stdout\n");
  __fpurge(stdout);
  dup2(savedStdout, 1);
  close(savedStdout);
  sigaction(SIGPIPE, &previous, nullptr);
  ASSERT_EQ(g_pipeSignals, 1);
  EXPECT_NE(ReadWholeFile(dir.File("wd_1_0.0")).find("termination signal:13 stopping agent"),
            std::string::npos);
  Logger::DestroyLogger();
  terminationRequested = 0;
}

// A second SIGTERM kills at once: a stop that wedges can still be ended.
TEST(TermSignalTest, HandlerSetsTheFlagOnce) {
  ASSERT_EQ(SetTermSignal(), 0);
  raise(SIGTERM);
  EXPECT_EQ(terminationRequested, 1);
  EXPECT_EXIT(raise(SIGTERM), ::testing::KilledBySignal(SIGTERM), "");
  terminationRequested = 0;
  std::signal(SIGTERM, SIG_DFL);
}

}  // namespace
