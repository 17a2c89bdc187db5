#include "tests/watchdog/entities/FakeKernel.h"

#include <cstdio>
#include <sstream>

FakeKernel::FakeKernel() : listPath_(dir_.File("modules")) {
  SetModulesList("");
  previous_ = InstallKernelModuleApi(this);
}

FakeKernel::~FakeKernel() { InstallKernelModuleApi(previous_); }

int FakeKernel::InitModule(const void* image, unsigned long size, const char* params) {
  ++loadCalls_;
  if (loadErrno_ != 0) {
    errno = loadErrno_;
    return -1;
  }
  loadedImage_.assign(static_cast<const char*>(image), size);
  loadedParams_ = params;
  SetModulesList(ModulesList() + lineOnLoad_);
  return 0;
}

int FakeKernel::DeleteModule(const char* name, unsigned int flags) {
  ++unloadCalls_;
  lastUnloadFlags_ = flags;
  if (unloadFailuresLeft_ != 0) {
    if (unloadFailuresLeft_ > 0) --unloadFailuresLeft_;
    errno = unloadErrno_;
    return -1;
  }
  std::istringstream in(ModulesList());
  std::string kept;
  const std::string prefix = std::string(name) + " ";
  for (std::string line; std::getline(in, line);) {
    if (line.rfind(prefix, 0) != 0) kept += line + "\n";
  }
  SetModulesList(kept);
  return 0;
}

void FakeKernel::SetModulesList(const std::string& content) { dir_.Write("modules", content); }

std::string FakeKernel::ModulesList() const { return ReadWholeFile(listPath_); }

void FakeKernel::RemoveModulesList() { std::remove(listPath_.c_str()); }
