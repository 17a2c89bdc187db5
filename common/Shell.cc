#include "common/Shell.h"

#include <cstdlib>

namespace {

class RealShell final : public Shell {
 public:
  int System(const char* command) override { return std::system(command); }
};

RealShell g_realShell;
Seam<Shell> g_shell(&g_realShell);

}  // namespace

template <>
Seam<Shell>& SeamOf<Shell>() {
  return g_shell;
}

Shell& GetShell() { return g_shell.Get(); }

Shell* InstallShell(Shell* shell) { return g_shell.Install(shell); }
