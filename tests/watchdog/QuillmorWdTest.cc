// Runs the real quillmorWD binary and checks what it prints and how it ends.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/support/TempDir.h"

namespace {

const std::string kUsage = "Usage:\nquillmorWD -f <config file path>\n";
// Where the argument phase hands over to the start-up, which ends at once on
// the private, empty /var these runs get: the default log directory is absent.
const std::string kStartupEnds =
    "Failed creating crash dump file "
    "/var/log/quillmor/Quillmor_40.5.21.71902_WatchdogStackTrace_0.log\nFailed initializing "
    "crash handler\n";

// Standard output (or, with errors, standard error) and exit status (-1 when
// the process did not exit).
std::pair<std::string, int> RunProgram(const std::string& binary,
                                       const std::vector<std::string>& args, bool errors = false) {
  std::string command = binary;
  for (const std::string& arg : args) command += " '" + arg + "'";
  if (errors) command += " 2>&1 >/dev/null";
  FILE* pipe = popen(command.c_str(), "r");
  std::string output;
  char buffer[4096];
  for (size_t n; (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0;) output.append(buffer, n);
  const int status = pclose(pipe);
  return {output, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

class QuillmorWdTest : public ::testing::Test {
 protected:
  TempDir dir_;
  const std::string good_ = dir_.Write("good.cfg", "cpuCoresNumber=4\n");
  const std::string bad_ = dir_.Write("bad.cfg", "cpuCoresNumber=12abc\n");
};

TEST_F(QuillmorWdTest, ArgumentPhasePrintsAndEnds) {
  const std::string found = "Found config file path '";
  const std::string absent = dir_.File("absent.cfg");
  // arguments, standard output, exit status
  const std::tuple<std::vector<std::string>, std::string, int> cases[] = {
      {{}, kUsage, 255},
      {{"-f"}, "Arg 1 is '-f', argc is 2, no more args for config file path!\n" + kUsage, 255},
      {{"-f", good_, "-r"},
       found + good_ + "'\nArg 3 is '-r', argc is 4, no more args for router ID!\n" + kUsage,
       255},
      {{"-f", "a.cfg", "extra"},
       found + "a.cfg'\nUnidentified cmd line arg 'extra'\n" + kUsage,
       255},
      {{"-r", "42", "-f", good_}, found + good_ + "'\n" + kStartupEnds, 255},
      {{"-f", absent}, found + absent + "'\n" + kStartupEnds, 255},
      {{"-f", good_, "-f", bad_},
       found + good_ + "'\n" + found + bad_ + "'\nFailed reading WD configuration from '" + bad_ +
           "'\n",
       255},
  };
  for (const auto& [args, output, status] : cases) {
    SCOPED_TRACE(testing::PrintToString(args));
    EXPECT_EQ(RunProgram(QWD_BINARY, args), std::make_pair(output, status));
  }
}

TEST_F(QuillmorWdTest, EveryStartupFailureNamesItsCauseOnStandardError) {
  const std::string d = dir_.path();
  const std::string versionDir = d + "/40.5.21.71902";
  std::filesystem::create_directory(versionDir);
  dir_.Write("40.5.21.71902/libx.so", "");
  const std::string installed = "wdLogDir=" + d + "\ndownloadDir=" + d + "\n";
  const std::string links = installed + "systemExecSymLinkPath=" + d +
                            "/s\nmoduleSymLinkPath=" + d + "/m\ncontrolScriptPath=" + d +
                            "/c\nteardownScriptPath=" + d + "/t\nagentSymLinkPath=" + d;
  const std::string noDump =
      "quillmorWD: cannot create the crash dump in log directory "
      "'/var/log/quillmor' (wdLogDir): No such file or directory\n";
  const std::string missing = "quillmorWD: missing program '" + versionDir +
                              "/quillmorSystemExec': No such file or directory\nquillmorWD: "
                              "missing program '" +
                              versionDir + "/quillmorUserAgent': No such file or directory\n";
  const std::string notice = "quillmorWD: notice: configuration file '" + d;
  // configuration (empty: the directory itself is given), standard error, exit status
  const std::tuple<std::string, std::string, int> cases[] = {
      {"", notice + "' is a directory; running on the defaults\n" + noDump, 255},
      {"cpuCoresNumber=4\nfoo=1\nbad line\nx=1\n",
       "quillmorWD: warning: " + d + "/w.cfg:2: unknown key 'foo' ignored\nquillmorWD: warning: " +
           d + "/w.cfg:3: line not understood; it and the rest are ignored\n" + noDump,
       255},
      {"cpuCoresNumber=4\nMaxDelayPeriodSec=12x\n",
       "quillmorWD: " + d + "/w.cfg:2: key 'MaxDelayPeriodSec': value '12x' does not parse\n", 255},
      {"cpuAffinityMask=1\ncpuCoresNumber=0\n",
       "quillmorWD: cannot set the CPU affinity mask 0x1 on 0 cores: FAILURE\n", 255},
      {links + "/no/a\n",
       missing + "quillmorWD: cannot link '" + d + "/no/a' to '" + versionDir +
           "/quillmorUserAgent': No such file or directory\n",
       0},
      {links + "/a\nlibPath=" + d + "/no\n",
       missing + "quillmorWD: cannot link '" + d + "/no/libx.so' to '" + versionDir +
           "/libx.so': No such file or directory\n",
       0},
  };
  for (const auto& [config, errors, status] : cases) {
    SCOPED_TRACE(config);
    const std::string path = config.empty() ? d : dir_.Write("w.cfg", config);
    EXPECT_EQ(RunProgram(QWD_BINARY, {"-f", path}, true), std::make_pair(errors, status));
  }
  EXPECT_EQ(RunProgram(QWD_BINARY, {"-f", d + "/absent.cfg"}, true).first,
            notice + "/absent.cfg': No such file or directory; running on the defaults\n" + noDump);
}

TEST_F(QuillmorWdTest, NineArgumentsReadTheFileBesideTheExecutable) {
  const std::string binary = dir_.File("quillmorWD");
  std::filesystem::copy_file(QWD_BINARY, binary);
  char resolved[PATH_MAX];
  const std::string beside = std::string(realpath(dir_.path().c_str(), resolved)) + "/watchdog.cfg";
  const std::string attempt = "Will attempt to read WD config from '" + beside + "'\n";
  EXPECT_EQ(RunProgram(binary, {"a", "b", "c", "d", "e", "f", "g", "h"}),
            std::make_pair(attempt + kStartupEnds, 255));
  std::filesystem::copy_file(bad_, beside);
  EXPECT_EQ(
      RunProgram(binary, {"-f", good_, "1", "2", "3", "4", "5", "6"}),
      std::make_pair(attempt + "Failed reading WD configuration from '" + beside + "'\n", 255));
}

}  // namespace
