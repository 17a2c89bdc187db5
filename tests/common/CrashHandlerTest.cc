#include "common/CrashHandler.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "common/StackWalk.h"
#include "tests/support/FakeClock.h"
#include "tests/support/TempDir.h"

namespace {

using Frames = std::vector<StackFrame>;

constexpr uintptr_t kMain = 0x400000, kCaller = 0x400100, kLeaf = 0x400200, kStack = 0x7fff0000;
constexpr uintptr_t kCallerRaSlot = kStack + 28, kMainRaSlot = kStack + 32 + 44;

// Made-up MIPS code and stack as 32-bit words; every other address is unmapped. main (48-byte
// frame, ra at 44, its caller null) calls caller (32 bytes, ra at 28), which calls a leaf.
class FakeMips : public MemoryReader {
 public:
  FakeMips() {
    // lui gp, addiu sp,sp,-size and sw ra,offset(sp) (the leaf has neither), then nops.
    for (const auto& [start, adjust, store] : {std::tuple{kMain, 0x27bdffd0u, 0xafbf002cu},
                                               {kCaller, 0x27bdffe0u, 0xafbf001cu},
                                               {kLeaf, 0u, 0u}}) {
      for (uintptr_t at = start; at < start + 0x40; at += 4) words[at] = 0;
      words[start] = 0x3c1c0002;
      words[start + 4] = adjust;
      words[start + 8] = store;
    }
  }
  bool Read(uintptr_t address, void* out, size_t size) override {
    const auto word = words.find(address);
    if (size != sizeof(uint32_t) || word == words.end()) return false;
    std::memcpy(out, &word->second, size);
    return true;
  }
  Frames Walk(const MipsRegisters& registers) {
    Frames frames(kMaxStackFrames);
    frames.resize(StackWalk::MipsPrologues(registers, *this, frames.data()));
    return frames;
  }
  std::map<uintptr_t, uint32_t> words{{kCallerRaSlot, kMain + 0x30}, {kMainRaSlot, 0}};
};

TEST(MipsStackWalkTest, FramesFromProloguesUntilNullReturnOrUnreadableMemory) {
  const MipsRegisters inLeaf{kLeaf + 0x20, kStack, kCaller + 0x30},
      inCaller{kCaller + 0x20, kStack, 0xdead};
  // Name, registers at the fault, a word taken out of the program, the frames.
  const std::tuple<const char*, MipsRegisters, uintptr_t, Frames> kCases[] = {
      {"leaf to main", inLeaf, 0, {{kCaller + 0x30, kStack}, {kMain + 0x30, kStack + 32}}},
      {"non-leaf: its saved ra, not the register", inCaller, 0, {{kMain + 0x30, kStack + 32}}},
      {"caller's code unreadable", inLeaf, kCaller + 0x30, {{kCaller + 0x30, kStack}}},
      {"saved ra unreadable", inCaller, kCallerRaSlot, {}},
      {"faulting code unreadable", inLeaf, kLeaf + 0x20, {}},
  };
  for (const auto& [name, registers, unmapped, expected] : kCases) {
    FakeMips program;
    program.words.erase(unmapped);
    EXPECT_EQ(expected, program.Walk(registers)) << name;
  }
}

TEST(MipsStackWalkTest, CorruptStackEndsAfterTheFrameLimit) {
  FakeMips program;  // main "called" by itself in every frame
  for (uintptr_t frame = 0; frame <= kMaxStackFrames; ++frame)
    program.words[kMainRaSlot + frame * 48] = kMain + 0x30;
  const Frames walked = program.Walk({kCaller + 0x20, kStack, 0});
  ASSERT_EQ(kMaxStackFrames, walked.size());
  EXPECT_EQ((StackFrame{kMain + 0x30, kStack + 32 + 98 * 48}), walked.back());
}

// Each run of hexadecimal digits after prefix as "#": addresses and source lines vary.
std::string Mask(const std::string& text, const std::string& prefix) {
  return std::regex_replace(text, std::regex(prefix + "[0-9a-f]+"), prefix + "#");
}

int Overflow(int depth) {  // until the stack runs out: the volatile frame keeps every call
  volatile char frame[4096] = {static_cast<char>(depth)};
  return depth < 0 ? 0 : Overflow(depth + 1) + frame[0];
}

class CrashHandlerTest : public ::testing::TestWithParam<bool> {};  // a stack overflow?
INSTANTIATE_TEST_SUITE_P(NullWriteAndStackOverflow, CrashHandlerTest, ::testing::Bool());

TEST_P(CrashHandlerTest, FaultWritesTheTraceToStdoutAndDumpThenAborts) {
  TempDir dir;
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_DUMPABLE, 0);  // no core file, not even through a core_pattern pipe
    dup2(open(dir.File("stdout").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), STDOUT_FILENO);
    FakeClock clock(1000 * 1000, 1000000000);  // 2001-09-09 01:46:40 UTC
    if (SetCrashHandler(dir.path().c_str(), "wd", 0)) {
      errno = EDOM;
      int* volatile unmapped = reinterpret_cast<int*>(16);  // below any mapping
      *unmapped = GetParam() ? Overflow(0) : 1;
    }
    _exit(1);
  }
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) << status;

  const std::string printed = Mask(ReadWholeFile(dir.File("stdout")), "0x");
  const long frames = std::count(printed.begin(), printed.end(), '\n') - 3;
  std::vector<std::string> messages = {"----- START TRACE pid 0 -----",
                                       "Crashed at [0x#] signal:11 pid:" + std::to_string(child) +
                                           " last errno:33"};   // SIGSEGV, EDOM
  // At least one frame, but for the overflow: a fault in a prologue that could
  // not store its frame leaves a prologue walk (MIPS) nothing to follow.
  for (long frame = 1; frame <= std::max(frames, GetParam() ? 0L : 1L); ++frame)
    messages.push_back("Frame " + std::to_string(frame) + ": 0x#  sp:0x#");
  messages.push_back("----- END TRACE -----");
  std::string out, dump;
  for (const std::string& message : messages) {
    out += message + "\n";
    dump +=
        "{\"level\": \"CRASH\", \"timestamp\": 1000, \"metadata\" : {\"router_timestamp\" : "
        "\"2001-09-09 01:46:40\", \"c_file\": \"../common/CrashHandler.c\", \"line\": # }, "
        "\"message\": \"" +
        message + "\"},\n";
  }
  EXPECT_EQ(out, printed);
  EXPECT_EQ(dump, Mask(Mask(ReadWholeFile(dir.File("wd_0.log")), "0x"), "\"line\": "));
}

}  // namespace
