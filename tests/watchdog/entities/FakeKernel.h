#pragma once

// A kernel for module tests: keeps its list of loaded modules in a file of a
// temporary directory, loads and unloads by editing that list, and fails
// either call on request. Installs itself on construction and puts the
// previous kernel back on destruction.

#include <cerrno>
#include <string>

#include "tests/support/TempDir.h"
#include "watchdog/KernelModuleApi.h"

class FakeKernel final : public KernelModuleApi {
 public:
  FakeKernel();
  ~FakeKernel() override;
  FakeKernel(const FakeKernel&) = delete;
  FakeKernel& operator=(const FakeKernel&) = delete;

  int InitModule(const void* image, unsigned long size, const char* params) override;
  int DeleteModule(const char* name, unsigned int flags) override;
  const char* ModulesListPath() override { return listPath_.c_str(); }

  // Replaces the whole list.
  void SetModulesList(const std::string& content);
  std::string ModulesList() const;
  // Removes the list file, as on a kernel without module support.
  void RemoveModulesList();

  // Line appended to the list by a successful load ("" lists nothing).
  void SetLineOnLoad(const std::string& line) { lineOnLoad_ = line; }
  // Loads fail with this errno (0: they succeed).
  void FailLoads(int error) { loadErrno_ = error; }
  // The next `count` unloads fail with `error` (-1: all of them); a successful
  // unload drops every list line starting with the module name.
  void FailUnloads(int count, int error = EBUSY) {
    unloadFailuresLeft_ = count;
    unloadErrno_ = error;
  }

  int LoadCalls() const { return loadCalls_; }
  int UnloadCalls() const { return unloadCalls_; }
  const std::string& LoadedImage() const { return loadedImage_; }
  const std::string& LoadedParams() const { return loadedParams_; }
  unsigned int LastUnloadFlags() const { return lastUnloadFlags_; }

 private:
  TempDir dir_;
  std::string listPath_;
  std::string lineOnLoad_;
  int loadErrno_ = 0;
  int unloadFailuresLeft_ = 0;
  int unloadErrno_ = EBUSY;
  int loadCalls_ = 0;
  int unloadCalls_ = 0;
  std::string loadedImage_;
  std::string loadedParams_;
  unsigned int lastUnloadFlags_ = 0;
  KernelModuleApi* previous_;
};
