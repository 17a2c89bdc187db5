#include "common/StackWalk.h"

#include <ucontext.h>

#include <cstdlib>

namespace {

constexpr uint32_t kStoreReturnAddress = 0xafbf;  // sw ra, offset(sp)
constexpr uint32_t kAdjustStackPointer = 0x27bd;  // addiu sp, sp, size
constexpr uint32_t kLoadGlobalPointer = 0x3c1c;   // lui gp, ...: first instruction of PIC code
constexpr uintptr_t kInstructionSize = 4;

// What a backward scan of one function's code found.
struct Prologue {
  bool hasReturnOffset = false;  // whether the store of ra was seen
  uint32_t returnOffset = 0;     // where in the frame ra was stored
  bool hasFrameSize = false;     // whether the stack adjustment was seen
  uint32_t frameSize = 0;        // bytes the function took from the stack
};

// The saved ra is one 32-bit word on the MIPS target.
bool ReadWord(MemoryReader& memory, uintptr_t address, uintptr_t* out) {
  uint32_t word = 0;
  if (!memory.Read(address, &word, sizeof(word))) return false;
  *out = word;
  return true;
}

// Scans backwards from address until both the return offset and the frame size
// are known or, with stopAtFunctionStart, the load of gp; false when the code
// turned unreadable first.
bool ScanPrologue(MemoryReader& memory, uintptr_t address, bool stopAtFunctionStart,
                  Prologue* found) {
  for (;; address -= kInstructionSize) {
    uint32_t word = 0;
    if (!memory.Read(address, &word, sizeof(word))) return false;
    const uint32_t opcode = word >> 16;
    if (opcode == kStoreReturnAddress && !found->hasReturnOffset) {
      found->hasReturnOffset = true;
      found->returnOffset = word & 0xffffu;
    } else if (opcode == kAdjustStackPointer && !found->hasFrameSize) {
      found->hasFrameSize = true;
      found->frameSize = static_cast<uint32_t>(std::abs(static_cast<int16_t>(word & 0xffffu)));
    }
    if (found->hasReturnOffset && found->hasFrameSize) return true;
    if (stopAtFunctionStart && opcode == kLoadGlobalPointer) return true;
  }
}

}  // namespace

namespace StackWalk {

size_t MipsPrologues(const MipsRegisters& registers, MemoryReader& memory, StackFrame* frames) {
  Prologue faulting;
  if (!ScanPrologue(memory, registers.pc, true, &faulting)) return 0;
  uintptr_t returnAddress = registers.ra;
  if (faulting.hasReturnOffset &&
      !ReadWord(memory, registers.sp + faulting.returnOffset, &returnAddress)) {
    return 0;
  }
  uintptr_t stackPointer = registers.sp + faulting.frameSize;
  size_t count = 0;
  while (returnAddress != 0 && count < kMaxStackFrames) {
    frames[count++] = {returnAddress, stackPointer};
    Prologue caller;
    if (!ScanPrologue(memory, returnAddress, false, &caller) ||
        !ReadWord(memory, stackPointer + caller.returnOffset, &returnAddress)) {
      break;
    }
    stackPointer += caller.frameSize;
  }
  return count;
}

size_t FramePointers(uintptr_t framePointer, MemoryReader& memory, StackFrame* frames,
                     uintptr_t pointsPast) {
  size_t count = 0;
  uintptr_t returnAddress = 0;
  uintptr_t pair = framePointer - pointsPast;
  while (count < kMaxStackFrames &&
         memory.Read(pair + sizeof(uintptr_t), &returnAddress, sizeof(returnAddress)) &&
         returnAddress != 0) {
    frames[count++] = {returnAddress, pair + 2 * sizeof(uintptr_t)};
    if (!memory.Read(pair, &framePointer, sizeof(framePointer))) break;
    pair = framePointer - pointsPast;
  }
  return count;
}

#if defined(__mips__)

uintptr_t FaultAddress(const void* signalContext) {
  return static_cast<uintptr_t>(static_cast<const ucontext_t*>(signalContext)->uc_mcontext.pc);
}

size_t FromSignalContext(const void* signalContext, MemoryReader& memory, StackFrame* frames) {
  const mcontext_t& machine = static_cast<const ucontext_t*>(signalContext)->uc_mcontext;
  const MipsRegisters registers{static_cast<uintptr_t>(machine.pc),
                                static_cast<uintptr_t>(machine.gregs[29]),
                                static_cast<uintptr_t>(machine.gregs[31])};
  return MipsPrologues(registers, memory, frames);
}

#elif defined(__x86_64__)

uintptr_t FaultAddress(const void* signalContext) {
  return static_cast<uintptr_t>(
      static_cast<const ucontext_t*>(signalContext)->uc_mcontext.gregs[REG_RIP]);
}

namespace {

// How far above the stack pointer a frame may lie, and how far the search for
// the first one goes.
constexpr uintptr_t kStackSpan = 1u << 20;
constexpr uintptr_t kFrameSearchBytes = 64u << 10;

// Whether a frame pointer leads up the stack to a frame that leads further up
// (or ends the chain), each with a return address beside it that is not a
// stack address.
bool LooksLikeFrame(uintptr_t frame, uintptr_t stackPointer, MemoryReader& memory) {
  auto isOnStack = [stackPointer](uintptr_t address) {
    return address >= stackPointer && address - stackPointer < kStackSpan;
  };
  for (int link = 0; link < 2; ++link) {
    uintptr_t next = 0;
    uintptr_t returnAddress = 0;
    if (!isOnStack(frame) || !memory.Read(frame, &next, sizeof(next)) ||
        !memory.Read(frame + sizeof(uintptr_t), &returnAddress, sizeof(returnAddress)) ||
        returnAddress == 0 || isOnStack(returnAddress)) {
      return false;
    }
    if (next == 0) return true;
    if (next <= frame) return false;
    frame = next;
  }
  return true;
}

// Code built without frame pointers (the C library, a sanitizer's wrappers)
// may hold anything in rbp when the signal lands: the chain then starts at the
// first saved frame pointer found above the stack pointer.
uintptr_t FirstFramePointer(uintptr_t framePointer, uintptr_t stackPointer, MemoryReader& memory) {
  if (LooksLikeFrame(framePointer, stackPointer, memory)) return framePointer;
  for (uintptr_t at = stackPointer; at < stackPointer + kFrameSearchBytes;
       at += sizeof(uintptr_t)) {
    if (LooksLikeFrame(at, stackPointer, memory)) return at;
  }
  return framePointer;
}

}  // namespace

size_t FromSignalContext(const void* signalContext, MemoryReader& memory, StackFrame* frames) {
  const mcontext_t& machine = static_cast<const ucontext_t*>(signalContext)->uc_mcontext;
  const uintptr_t stackPointer = static_cast<uintptr_t>(machine.gregs[REG_RSP]);
  return FramePointers(
      FirstFramePointer(static_cast<uintptr_t>(machine.gregs[REG_RBP]), stackPointer, memory),
      memory, frames);
}

#elif defined(__aarch64__)

uintptr_t FaultAddress(const void* signalContext) {
  return static_cast<uintptr_t>(static_cast<const ucontext_t*>(signalContext)->uc_mcontext.pc);
}

size_t FromSignalContext(const void* signalContext, MemoryReader& memory, StackFrame* frames) {
  const mcontext_t& machine = static_cast<const ucontext_t*>(signalContext)->uc_mcontext;
  return FramePointers(static_cast<uintptr_t>(machine.regs[29]), memory, frames);
}

#elif defined(__arm__) && !defined(__thumb__)

uintptr_t FaultAddress(const void* signalContext) {
  return static_cast<uintptr_t>(static_cast<const ucontext_t*>(signalContext)->uc_mcontext.arm_pc);
}

// ARM-mode code pushes {fp, lr} and points fp at the saved lr, one word past
// the pair's start.
size_t FromSignalContext(const void* signalContext, MemoryReader& memory, StackFrame* frames) {
  const mcontext_t& machine = static_cast<const ucontext_t*>(signalContext)->uc_mcontext;
  return FramePointers(static_cast<uintptr_t>(machine.arm_fp), memory, frames, sizeof(uintptr_t));
}

#else
#error "No stack walk for this processor (32-bit ARM: build with -marm)"
#endif

}  // namespace StackWalk
