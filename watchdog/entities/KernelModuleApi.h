#pragma once

// The kernel's module calls and its list of loaded modules, behind one seam so
// that tests can play a kernel. The default is the real system: the raw
// init_module and delete_module system calls and the "modules" file of the
// process file system (GetProcRoot(), so "/proc/modules" unless a test moved
// the root).

#include "common/Seam.h"

class KernelModuleApi {
 public:
  virtual ~KernelModuleApi() = default;
  // init_module(image, size, params): 0, or -1 with errno set.
  virtual int InitModule(const void* image, unsigned long size, const char* params) = 0;
  // delete_module(name, flags): 0, or -1 with errno set.
  virtual int DeleteModule(const char* name, unsigned int flags) = 0;
  // The file listing the loaded modules, one per line; the pointer is valid
  // until the next call.
  virtual const char* ModulesListPath() = 0;
};

template <>
Seam<KernelModuleApi>& SeamOf<KernelModuleApi>();

// The kernel in force for the whole process.
KernelModuleApi& GetKernelModuleApi();
// Installs a kernel and returns the previous one; nullptr restores the real one.
KernelModuleApi* InstallKernelModuleApi(KernelModuleApi* api);
