#pragma once

// The end-to-end fixture: a prepared installation, the built quillmorWD
// started on it with real children (qwd_test_child playing the agent and the
// system-exec process from plan files), its log and the children's notes.
// Tests using it run with the fixed sockets on a private /var in a private
// pid namespace (qwd_add_test ... PRIVATE_PID).

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/TempDir.h"

namespace e2e {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
inline const std::string kVersion = "40.5.21.71902";

class WatchdogRun : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* d : {"bin", "lib", "log", "run", "plan", "dl/1.2.3", "dl/tmp"}) {
      fs::create_directories(dir_.File(d));
    }
    fs::create_directories(version_);
    dir_.Write("dl/9.9", "");
    dir_.Write("bin/quillmorUserAgent", "a regular file in the link's way");
    fs::create_symlink(dir_.File("nowhere"), dir_.File("bin/quillmorSystemExec"));  // dangling
    for (const char* name : {"quillmorUserAgent", "quillmorSystemExec"}) {
      fs::copy_file(QWD_TEST_CHILD, version_ + "/" + name);
    }
    for (const char* name :
         {"quillmorKernelAgent", "quillmor_control.sh", "quillmor_teardown.sh", "libdemo.so.1"}) {
      dir_.Write("dl/" + kVersion + "/" + name, "");
    }
    dir_.Write("dl/" + kVersion + "/cleanup.sh",
               "#!/bin/sh\necho cleanup >> " + dir_.File("plan/cleanup.log") + "\n");
    chmod((version_ + "/cleanup.sh").c_str(), 0755);
  }
  void TearDown() override {
    if (pid_ > 0) Finish(SIGKILL);
  }

  // Config lines over the test installation's paths and short policies.
  std::string Config(const std::string& extra) const {
    std::ostringstream cfg;
    cfg << "agentSymLinkPath=" << dir_.File("bin/quillmorUserAgent")
        << "\nsystemExecSymLinkPath=" << dir_.File("bin/quillmorSystemExec")
        << "\nmoduleSymLinkPath=" << dir_.File("bin/quillmorKernelAgent") << "\n";
    cfg << "controlScriptPath=" << dir_.File("bin/quillmor_control.sh")
        << "\nteardownScriptPath=" << dir_.File("bin/quillmor_teardown.sh")
        << "\nlibPath=" << dir_.File("lib") << "\ndownloadDir=" << dir_.File("dl")
        << "\nwdLogDir=" << dir_.File("log") << "\npidFilePath=" << dir_.File("run") << "/"
        << "\nDelayTimeIncreaseSec=1\nSleepOnCriticalErrorSec=1\nCriticalErrorRetries=2\n"
        << extra;
    return cfg.str();
  }

  // Starts the watchdog with the two children's plans (one line per launch).
  void Start(const std::string& agentPlan, const std::string& extraConfig = "",
             const std::string& systemExecPlan = "beat") {
    dir_.Write("plan/quillmorUserAgent.plan", agentPlan);
    dir_.Write("plan/quillmorSystemExec.plan", systemExecPlan);
    const std::string cfg = dir_.Write("wd.cfg", Config(extraConfig));
    setenv("QWD_CHILD_PLAN_DIR", dir_.File("plan").c_str(), 1);
    pid_ = fork();
    if (pid_ == 0) {
      freopen(dir_.File("stdout").c_str(), "w", stdout);
      std::vector<const char*> argv;
      for (const std::string& word : wrapper_) argv.push_back(word.c_str());
      argv.insert(argv.end(),
                  {wrapper_.empty() ? "quillmorWD" : QWD_BINARY, "-f", cfg.c_str(), nullptr});
      execv(wrapper_.empty() ? QWD_BINARY : argv[0], const_cast<char* const*>(argv.data()));
      _exit(127);
    }
  }

  // The watchdog's log so far: every file named as the agent's log files are,
  // in rotation order.
  std::string Log() const {
    std::vector<std::string> files;
    std::error_code gone;  // a removed log directory holds nothing
    for (const auto& entry : fs::directory_iterator(dir_.File("log"), gone)) {
      if (entry.path().filename().string().rfind("Quillmor_" + kVersion + "_WatchdogLogger_", 0) ==
          0) {
        files.push_back(entry.path());
      }
    }
    std::sort(files.begin(), files.end());
    std::string text;
    for (const std::string& file : files) text += ReadWholeFile(file);
    return text;
  }
  bool WaitFor(const std::string& file, const std::string& text, int seconds = 20) const {
    for (auto end = Clock::now() + std::chrono::seconds(seconds); Clock::now() < end;) {
      const std::string content = file.empty() ? Log() : ReadWholeFile(dir_.File(file));
      if (content.find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ADD_FAILURE() << "no '" << text << "' in " << (file.empty() ? "the log" : file);
    return false;
  }
  // The watchdog's wait status once it has ended by itself; killed (and a
  // failure) when it has not within the time.
  int WaitForExit(int seconds) {
    int status = 0;
    for (auto end = Clock::now() + std::chrono::seconds(seconds); Clock::now() < end;) {
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return status;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ADD_FAILURE() << "the watchdog did not end in " << seconds << " s";
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }
  // Sends the signal; the end must be prompt.
  int Finish(int signal) {
    kill(pid_, signal);
    return WaitForExit(exitSeconds_);
  }
  std::vector<std::string> Lines(const std::string& file) const {
    std::vector<std::string> lines;
    std::istringstream in(ReadWholeFile(dir_.File(file)));
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
  size_t Count(const std::string& text) const {
    const std::string log = Log();
    size_t n = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
    return n;
  }

  TempDir dir_;
  const std::string version_ = dir_.File("dl/" + kVersion);
  pid_t pid_ = -1;
  std::vector<std::string> wrapper_;  // a program and its arguments that run the watchdog
  int exitSeconds_ = 3;               // how prompt an end after a signal must be
};

}  // namespace e2e
