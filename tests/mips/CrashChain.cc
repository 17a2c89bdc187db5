// A known call chain for the crash handler's MIPS walk: main calls
// CrashChainOuter, Middle, Inner, and the leaf CrashChainLeaf writes through a
// null pointer. Every caller, main too, still works after its call, so none
// is a tail call, and noipa keeps each a real function of its own symbol.
//   qwd_mips_crash_chain <dump directory>
// First prints where CrashChainOuter runs, which relates the trace of this
// position-independent program to its symbol table.

#include <cstdio>

#include "common/CrashHandler.h"

extern "C" {

int* volatile g_target = nullptr;

__attribute__((noipa)) int CrashChainLeaf(int depth) {
  *g_target = depth;
  return depth;
}
__attribute__((noipa)) int CrashChainInner(int depth) { return CrashChainLeaf(depth + 1) + 1; }
__attribute__((noipa)) int CrashChainMiddle(int depth) { return CrashChainInner(depth + 1) + 1; }
__attribute__((noipa)) int CrashChainOuter(int depth) { return CrashChainMiddle(depth + 1) + 1; }
}

int main(int argc, char** argv) {
  if (argc != 2 || !SetCrashHandler(argv[1], "chain", 0)) return 2;
  std::printf("CrashChainOuter at %p\n", reinterpret_cast<void*>(&CrashChainOuter));
  std::fflush(stdout);
  return CrashChainOuter(argc) + 1;
}
