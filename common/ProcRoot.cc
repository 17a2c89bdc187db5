#include "common/ProcRoot.h"

#include <array>

#include "common/StringUtils.h"

namespace {

class RealProcFs final : public ProcFs {
 public:
  const char* Root() override { return "/proc"; }
};

// A root held as a copied path.
class PathProcFs final : public ProcFs {
 public:
  const char* Root() override { return root_.data(); }
  void SetRoot(const char* root) { SafeStrCopy(root_, root); }

 private:
  std::array<char, 256> root_{};  // the directory, terminated
};

RealProcFs g_realProcFs;
PathProcFs g_setProcFs;  // the root given to SetProcRoot
Seam<ProcFs> g_procFs(&g_realProcFs);

}  // namespace

template <>
Seam<ProcFs>& SeamOf<ProcFs>() {
  return g_procFs;
}

const char* GetProcRoot() { return g_procFs.Get().Root(); }

void SetProcRoot(const char* root) {
  if (root != nullptr) g_setProcFs.SetRoot(root);
  g_procFs.Install(root != nullptr ? &g_setProcFs : nullptr);
}
