// The whole road under valgrind's memcheck: start, commands, a requested
// restart, a switch to safe mode and SIGTERM, with no memory error, no
// definite or indirect leak, and no descriptor open at exit besides the
// standard three. Skipped where valgrind is not installed.

#include "tests/watchdog/e2e/WatchdogRun.h"

namespace {

using namespace e2e;

class WatchdogMemcheckTest : public WatchdogRun {};

TEST_F(WatchdogMemcheckTest, WholeRoadLeavesNoErrorLeakOrDescriptor) {
  if (std::system("valgrind --version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no valgrind";
  // The shell hands its pid to valgrind, which runs the watchdog in it.
  wrapper_ = {"/bin/sh", "-c",
              "exec valgrind --error-exitcode=99 --leak-check=full --show-leak-kinds=definite,"
              "indirect --errors-for-leak-kinds=definite,indirect --track-fds=yes --log-file=" +
                  dir_.File("valgrind.%p.log") + " \"$@\"",
              "sh"};
  exitSeconds_ = 60;
  Start(
      "hb cmd 8 cmd 1 cmd 2 228 0 text 6 acct42 cmd 7 1000 0 cmd 4 0 wait\nhb cmd 3 1 wait\nbeat");
  ASSERT_TRUE(WaitFor("plan/quillmorUserAgent.launches", "--safe-mode", 120));
  ASSERT_TRUE(WaitFor("", "Switching operational mode 0 -> 1", 30));
  ASSERT_TRUE(WaitFor("run/quillmorUserAgent.pid", "\n", 60));
  const pid_t watchdog = pid_;
  const int status = Finish(SIGTERM);
  const std::string report =
      ReadWholeFile(dir_.File("valgrind." + std::to_string(watchdog) + ".log"));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << "\n" << report;
  EXPECT_NE(report.find("ERROR SUMMARY: 0 errors"), std::string::npos) << report;
  // Descriptors the test's own parents passed down are valgrind's report too.
  auto count = [&report](const std::string& text) {
    size_t n = 0;
    for (size_t at = report.find(text); at != std::string::npos; at = report.find(text, at + 1))
      ++n;
    return n;
  };
  EXPECT_EQ(count("Open file descriptor "), count("<inherited from parent>")) << report;
  EXPECT_EQ(Lines("plan/quillmorUserAgent.replies").size(), 7u);
}

}  // namespace
