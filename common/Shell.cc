#include "common/Shell.h"

#include <cstdlib>

#include "common/Seam.h"

namespace {

class RealShell final : public Shell {
 public:
  int System(const char* command) override { return std::system(command); }
};

RealShell g_realShell;
Seam<Shell> g_shell(&g_realShell);

}  // namespace

Shell& GetShell() { return g_shell.Get(); }

Shell* InstallShell(Shell* shell) { return g_shell.Install(shell); }
