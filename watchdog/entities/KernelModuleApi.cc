#include "watchdog/entities/KernelModuleApi.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstdio>

#include "common/ProcRoot.h"

namespace {

// The C library wraps neither call, so they go through syscall() with the
// platform's own numbers.
class RealKernelModuleApi final : public KernelModuleApi {
 public:
  int InitModule(const void* image, unsigned long size, const char* params) override {
    return static_cast<int>(syscall(SYS_init_module, image, size, params));
  }

  int DeleteModule(const char* name, unsigned int flags) override {
    return static_cast<int>(syscall(SYS_delete_module, name, flags));
  }

  const char* ModulesListPath() override {
    std::snprintf(path_.data(), path_.size(), "%s/modules", GetProcRoot());
    return path_.data();
  }

 private:
  std::array<char, 264> path_{};  // the last path built
};

RealKernelModuleApi g_realApi;
Seam<KernelModuleApi> g_api(&g_realApi);

}  // namespace

template <>
Seam<KernelModuleApi>& SeamOf<KernelModuleApi>() {
  return g_api;
}

KernelModuleApi& GetKernelModuleApi() { return g_api.Get(); }

KernelModuleApi* InstallKernelModuleApi(KernelModuleApi* api) { return g_api.Install(api); }
