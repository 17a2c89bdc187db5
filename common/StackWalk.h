#pragma once

// Stack walks for the crash trace: from the registers of a fault to the return
// address and stack pointer of each calling frame, at most kMaxStackFrames of
// them, ending early at a null return address or at memory that cannot be
// read. Memory is only reached through a MemoryReader, so the walks are pure:
// tests drive them over synthetic code and stacks, the crash handler over the
// process itself (OwnMemoryReader). Nothing here allocates or locks, so it
// runs inside a signal handler.
//
// Driving the MIPS walk (as the crash handler does on the router, or a test
// does over code it assembled): put the fault's pc, sp and ra into
// MipsRegisters, pass a reader that returns the 32-bit words at any address as
// uint32_t values (it never sees byte order) and an array of kMaxStackFrames
// frames; the result is how many of them were filled.

#include <cstddef>
#include <cstdint>

// Upper bound of a trace: a corrupt stack that never yields a null return
// address still ends here.
constexpr size_t kMaxStackFrames = 99;

// One calling frame: where it resumes and its stack pointer there.
struct StackFrame {
  uintptr_t returnAddress;  // address in the caller the frame returns to
  uintptr_t stackPointer;   // the caller's stack pointer

  bool operator==(const StackFrame&) const = default;
};

// Access to the memory being walked.
class MemoryReader {
 public:
  virtual ~MemoryReader() = default;
  // Copies size bytes at address into out; false when they cannot be read.
  virtual bool Read(uintptr_t address, void* out, size_t size) = 0;
};

// The registers of a MIPS fault that the walk starts from.
struct MipsRegisters {
  uintptr_t pc;  // the faulting instruction
  uintptr_t sp;  // the stack pointer at the fault
  uintptr_t ra;  // the return address register, the caller of a leaf function
};

namespace StackWalk {

// The prologue walk of MIPS position-independent code: scanning the code
// backwards from the fault, then from each return address, for the store of
// ra (0xafbf: its offset in the frame) and the stack adjustment (0x27bd: the
// frame size, sign dropped). In the faulting function alone the load of gp
// (0x3c1c) marks the first instruction; reaching it with no store of ra seen
// means a leaf function, whose caller is in the context's ra.
size_t MipsPrologues(const MipsRegisters& registers, MemoryReader& memory, StackFrame* frames);

// The frame-pointer chain (x86-64, AArch64, 32-bit ARM code): each frame
// pointer points pointsPast bytes beyond a pair of the caller's frame pointer
// and the return address, with the caller's stack pointer above the pair.
size_t FramePointers(uintptr_t framePointer, MemoryReader& memory, StackFrame* frames,
                     uintptr_t pointsPast = 0);

// The instruction that faulted, from the ucontext_t a SA_SIGINFO handler gets.
uintptr_t FaultAddress(const void* signalContext);

// The walk of this processor from a SA_SIGINFO handler's ucontext_t.
size_t FromSignalContext(const void* signalContext, MemoryReader& memory, StackFrame* frames);

}  // namespace StackWalk
