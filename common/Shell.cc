#include "common/Shell.h"

#include <atomic>
#include <cstdlib>

namespace {

class RealShell final : public Shell {
 public:
  int System(const char* command) override { return std::system(command); }
};

RealShell g_realShell;
std::atomic<Shell*> g_shell{&g_realShell};

}  // namespace

Shell& GetShell() { return *g_shell.load(std::memory_order_acquire); }

Shell* InstallShell(Shell* shell) {
  return g_shell.exchange(shell != nullptr ? shell : &g_realShell);
}
