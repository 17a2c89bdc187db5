#pragma once

// A prepared process file system under a temporary directory, installed as
// the /proc root for the lifetime of the object.

#include <string>

#include "tests/support/TempDir.h"

struct FakeProcess {
  int pid = 0;
  std::string name = "proc";
  std::string state = "S (sleeping)";
  int ppid = 1;
  int threads = 1;
  int vmRssKb = 100;
  int vmHwmKb = 120;
  int fdSize = 64;
  int openFds = 0;  // entries created under fd/
};

class FakeProcTree {
 public:
  FakeProcTree();
  ~FakeProcTree();

  const std::string& root() const { return dir_.path(); }
  // <root>/<pid>/status in the kernel's layout, and the fd/ entries.
  void Add(const FakeProcess& process);
  // A process directory without a status file: one that vanished after the listing.
  void AddVanished(int pid);
  // Any file under the root, directories created on the way.
  void WriteFile(const std::string& relativePath, const std::string& content);

 private:
  TempDir dir_;
};
