#include "common/ProcRoot.h"

#include <array>

#include "common/StringUtils.h"

namespace {

std::array<char, 256> g_procRoot = {"/proc"};

}  // namespace

const char* GetProcRoot() { return g_procRoot.data(); }

void SetProcRoot(const char* root) { SafeStrCopy(g_procRoot, root != nullptr ? root : "/proc"); }
