// Runs the real quillmorWD binary and checks what it prints and how it ends.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/TempDir.h"

namespace {

const std::string kUsage = "Usage:\nquillmorWD -f <config file path>\n";

struct ProgramRun {
  std::string output;  // standard output
  int status;          // exit status, or -1 when the process did not exit
};

ProgramRun RunProgram(const std::string& binary, const std::vector<std::string>& args) {
  int fds[2];
  if (pipe(fds) != 0) return {"pipe failed", -1};
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], STDOUT_FILENO);
    close(fds[0]);
    close(fds[1]);
    std::vector<char*> argv{const_cast<char*>(binary.c_str())};
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(binary.c_str(), argv.data());
    _exit(127);
  }
  close(fds[1]);
  ProgramRun run{"", -1};
  char buffer[4096];
  ssize_t n;
  while ((n = read(fds[0], buffer, sizeof(buffer))) > 0) run.output.append(buffer, n);
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status)) run.status = WEXITSTATUS(status);
  return run;
}

class QuillmorWdTest : public ::testing::Test {
 protected:
  ProgramRun Start(const std::vector<std::string>& args) { return RunProgram(QWD_BINARY, args); }

  // A copy of the binary in its own directory, beside the given watchdog.cfg.
  std::string InstallBeside(const std::string& config) {
    const std::string binary = dir_.File("quillmorWD");
    std::filesystem::copy_file(QWD_BINARY, binary);
    if (!config.empty()) dir_.Write("watchdog.cfg", config);
    return binary;
  }
  // The directory as the running executable sees it (symbolic links resolved).
  std::string RealDir() {
    char resolved[PATH_MAX];
    return realpath(dir_.path().c_str(), resolved) != nullptr ? resolved : dir_.path();
  }

  TempDir dir_;
};

TEST_F(QuillmorWdTest, NoArgumentsPrintsUsage) {
  const ProgramRun run = Start({});
  EXPECT_EQ(run.output, kUsage);
  EXPECT_EQ(run.status, 255);
}

TEST_F(QuillmorWdTest, LoneConfigOptionLacksItsValue) {
  const ProgramRun run = Start({"-f"});
  EXPECT_EQ(run.output, "Arg 1 is '-f', argc is 2, no more args for config file path!\n" + kUsage);
  EXPECT_EQ(run.status, 255);
}

TEST_F(QuillmorWdTest, LoneRouterOptionLacksItsValue) {
  const ProgramRun run = Start({"-f", dir_.File("w.cfg"), "-r"});
  EXPECT_EQ(run.output, "Found config file path '" + dir_.File("w.cfg") +
                            "'\nArg 3 is '-r', argc is 4, no more args for router ID!\n" + kUsage);
  EXPECT_EQ(run.status, 255);
}

TEST_F(QuillmorWdTest, RouterIdWithoutConfigPathPrintsOnlyUsage) {
  const ProgramRun run = Start({"-r", "42"});
  EXPECT_EQ(run.output, kUsage);
  EXPECT_EQ(run.status, 255);
}

TEST_F(QuillmorWdTest, TrailingLoneValueIsAnUnidentifiedArgument) {
  const ProgramRun run = Start({"-f", "a.cfg", "extra"});
  EXPECT_EQ(run.output,
            "Found config file path 'a.cfg'\nUnidentified cmd line arg 'extra'\n" + kUsage);
  EXPECT_EQ(run.status, 255);
}

TEST_F(QuillmorWdTest, UnknownOptionIsRefused) {
  const ProgramRun run = Start({"-F", "a.cfg"});
  EXPECT_EQ(run.output, "Unidentified cmd line arg '-F'\n" + kUsage);
  EXPECT_EQ(run.status, 255);
}

TEST_F(QuillmorWdTest, RouterIdBeforeConfigPathIsIgnored) {
  const std::string config = dir_.Write("w.cfg", "cpuCoresNumber=4\n");
  const ProgramRun run = Start({"-r", "42", "-f", config});
  EXPECT_EQ(run.output, "Found config file path '" + config + "'\n");
  EXPECT_EQ(run.status, 0);
}

TEST_F(QuillmorWdTest, MissingConfigFileKeepsDefaults) {
  const ProgramRun run = Start({"-f", dir_.File("absent.cfg")});
  EXPECT_EQ(run.output, "Found config file path '" + dir_.File("absent.cfg") + "'\n");
  EXPECT_EQ(run.status, 0);
}

TEST_F(QuillmorWdTest, UnparsableIntegerFailsTheStart) {
  const std::string good = dir_.Write("good.cfg", "cpuCoresNumber=4\n");
  const std::string bad = dir_.Write("bad.cfg", "cpuCoresNumber=12abc\n");
  const ProgramRun run = Start({"-f", good, "-f", bad});
  EXPECT_EQ(run.output, "Found config file path '" + good + "'\nFound config file path '" + bad +
                            "'\nFailed reading WD configuration from '" + bad + "'\n");
  EXPECT_EQ(run.status, 255);
}

TEST_F(QuillmorWdTest, NineArgumentsReadTheFileBesideTheExecutable) {
  const std::string binary = InstallBeside("cpuCoresNumber=12abc\n");
  const std::string expected = RealDir() + "/watchdog.cfg";
  const ProgramRun run = RunProgram(binary, {"-f", "/elsewhere.cfg", "1", "2", "3", "4", "5", "6"});
  EXPECT_EQ(run.output, "Will attempt to read WD config from '" + expected +
                            "'\nFailed reading WD configuration from '" + expected + "'\n");
  EXPECT_EQ(run.status, 255);
}

TEST_F(QuillmorWdTest, NineArgumentsWithoutAFileBesideStillStart) {
  const std::string binary = InstallBeside("");
  const ProgramRun run = RunProgram(binary, {"a", "b", "c", "d", "e", "f", "g", "h"});
  EXPECT_EQ(run.output, "Will attempt to read WD config from '" + RealDir() + "/watchdog.cfg'\n");
  EXPECT_EQ(run.status, 0);
}

}  // namespace
