#include "tools/qwd-log/CrashSymbolizer.h"

#include <elf.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint64_t kPage = 0x1000;

// Reads an unsigned field of size bytes at offset in the given byte order.
uint64_t Field(const std::vector<uint8_t>& bytes, size_t offset, size_t size, bool bigEndian) {
  uint64_t value = 0;
  for (size_t i = 0; i < size && offset + i < bytes.size(); ++i) {
    const uint64_t byte = bytes[offset + (bigEndian ? i : size - 1 - i)];
    value = (value << 8) | byte;
  }
  return value;
}

const char* Addr2lineFor(uint16_t machine) {
  if (const char* chosen = std::getenv("QWD_ADDR2LINE")) return chosen;
  switch (machine) {
    case EM_MIPS:
      return "mips-linux-gnu-addr2line";
    case EM_ARM:
      return "arm-linux-gnueabihf-addr2line";
    case EM_AARCH64:
      return "aarch64-linux-gnu-addr2line";
    default:
      return "addr2line";
  }
}

// Runs the program with the arguments and returns its standard output.
bool RunForOutput(const std::vector<std::string>& args, std::string* out) {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) return false;
  const pid_t child = fork();
  if (child == 0) {
    dup2(pipeFds[1], STDOUT_FILENO);
    close(pipeFds[0]);
    close(pipeFds[1]);
    std::vector<char*> argv;
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execvp(argv[0], argv.data());
    _exit(127);
  }
  close(pipeFds[1]);
  char buffer[4096];
  for (ssize_t n; (n = read(pipeFds[0], buffer, sizeof(buffer))) > 0;) out->append(buffer, n);
  close(pipeFds[0]);
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

}  // namespace

std::unique_ptr<CrashSymbolizer> CrashSymbolizer::Open(const std::string& binary,
                                                       std::string* error) {
  std::vector<uint8_t> file;
  if (FILE* in = std::fopen(binary.c_str(), "rb")) {
    char buffer[65536];
    for (size_t n; (n = std::fread(buffer, 1, sizeof(buffer), in)) > 0;) {
      file.insert(file.end(), buffer, buffer + n);
    }
    std::fclose(in);
  }
  if (file.size() < EI_NIDENT || std::memcmp(file.data(), ELFMAG, SELFMAG) != 0) {
    *error = "'" + binary + "' is no ELF file";
    return nullptr;
  }
  std::unique_ptr<CrashSymbolizer> symbolizer(new CrashSymbolizer());
  CrashSymbolizer& s = *symbolizer;
  s.binary_ = binary;
  const bool wide = file[EI_CLASS] == ELFCLASS64;
  const bool big = file[EI_DATA] == ELFDATA2MSB;
  s.bigEndian_ = big;
  s.positionIndependent_ = Field(file, 16, 2, big) == ET_DYN;
  s.machine_ = static_cast<uint16_t>(Field(file, 18, 2, big));
  // Program headers: offset, entry size and count, by ELF class.
  const uint64_t phoff = wide ? Field(file, 32, 8, big) : Field(file, 28, 4, big);
  const uint64_t phentsize = Field(file, wide ? 54 : 42, 2, big);
  const uint64_t phnum = Field(file, wide ? 56 : 44, 2, big);
  for (uint64_t i = 0; i < phnum; ++i) {
    const size_t at = phoff + i * phentsize;
    const uint64_t flags = Field(file, at + (wide ? 4 : 24), 4, big);
    if (Field(file, at, 4, big) != PT_LOAD || (flags & PF_X) == 0) continue;
    const uint64_t offset = wide ? Field(file, at + 8, 8, big) : Field(file, at + 4, 4, big);
    const uint64_t vaddr = wide ? Field(file, at + 16, 8, big) : Field(file, at + 8, 4, big);
    const uint64_t size = wide ? Field(file, at + 32, 8, big) : Field(file, at + 16, 4, big);
    if (offset + size > file.size()) break;
    s.codeStart_ = vaddr;
    s.code_.assign(file.begin() + offset, file.begin() + offset + size);
    return symbolizer;
  }
  *error = "'" + binary + "' has no code segment";
  return nullptr;
}

uint64_t CrashSymbolizer::AddressIn(const LogRecord& record, bool* isReturn) {
  if (record.kind != LogLineKind::ENTRY || record.level != "CRASH") return 0;
  const std::string& message = record.message;
  *isReturn = message.rfind("Frame ", 0) == 0;
  const size_t at = *isReturn ? message.find(": 0x") : message.rfind("Crashed at [0x", 0);
  if (at == std::string::npos) return 0;
  return std::strtoull(message.c_str() + message.find("0x", at), nullptr, 16);
}

void CrashSymbolizer::Collect(const LogRecord& record) {
  bool isReturn = false;
  const uint64_t address = AddressIn(record, &isReturn);
  if (address != 0) addresses_.emplace_back(address, isReturn);
}

bool CrashSymbolizer::InCode(uint64_t address) const {
  return address >= codeStart_ && address - codeStart_ < code_.size();
}

bool CrashSymbolizer::FollowsCall(uint64_t address) const {
  const auto byteAt = [&](uint64_t back) {
    return back <= address - codeStart_ ? code_[address - codeStart_ - back] : 0;
  };
  if (machine_ == EM_MIPS) {
    if (address - codeStart_ < 8) return false;
    const uint64_t word = Field(code_, address - codeStart_ - 8, 4, bigEndian_);
    const uint64_t opcode = word >> 26;
    const uint64_t regimm = (word >> 16) & 0x1f;
    return (opcode == 0 && (word & 0x3f) == 9) || opcode == 3 ||  // jalr, jal
           (opcode == 1 && (regimm == 0x10 || regimm == 0x11));   // bltzal, bgezal
  }
  if (machine_ == EM_X86_64 || machine_ == EM_386) {
    return byteAt(5) == 0xe8 || byteAt(2) == 0xff || byteAt(3) == 0xff || byteAt(6) == 0xff;
  }
  return true;  // no check known for this CPU: being in the code is all
}

uint64_t CrashSymbolizer::FindBias() const {
  if (!positionIndependent_) return 0;
  std::map<uint64_t, int> scores;
  for (const auto& [address, isReturn] : addresses_) {
    const uint64_t end = codeStart_ + code_.size();
    if (address < codeStart_) continue;
    for (uint64_t bias = (address - std::min(address, end - 1)) & ~(kPage - 1);
         bias <= address - codeStart_; bias += kPage) {
      const uint64_t linked = address - bias;
      if (InCode(linked) && (!isReturn || FollowsCall(linked))) ++scores[bias];
    }
  }
  uint64_t best = UINT64_MAX;
  int bestScore = 0;
  bool tie = false;  // two biases fit equally well: neither is taken
  for (const auto& [bias, score] : scores) {
    if (score > bestScore) {
      bestScore = score;
      best = bias;
      tie = false;
    } else if (score == bestScore) {
      tie = true;
    }
  }
  return tie ? UINT64_MAX : best;
}

bool CrashSymbolizer::Resolve(std::string* error) {
  if (addresses_.empty()) return true;
  const uint64_t bias = FindBias();
  if (bias == UINT64_MAX) {
    *error = "the crash addresses do not fit '" + binary_ + "': is it the crashed version?";
    return false;
  }
  std::vector<std::string> args = {Addr2lineFor(machine_), "-f", "-C", "-p", "-e", binary_};
  std::vector<uint64_t> asked;
  for (const auto& [address, isReturn] : addresses_) {
    // A return address names the line after the call: ask for the call itself.
    const uint64_t linked = address - bias - (isReturn ? (machine_ == EM_MIPS ? 8 : 1) : 0);
    if (!InCode(linked)) continue;
    char hex[24];
    std::snprintf(hex, sizeof(hex), "0x%llx", static_cast<unsigned long long>(linked));
    args.emplace_back(hex);
    asked.push_back(address);
  }
  std::string out;
  if (!RunForOutput(args, &out)) {
    *error = std::string("cannot run ") + args[0] + " (the binutils of the binary's CPU)";
    return false;
  }
  size_t start = 0;
  for (const uint64_t address : asked) {
    const size_t end = out.find('\n', start);
    if (end == std::string::npos) break;
    names_[address] = out.substr(start, end - start);
    start = end + 1;
  }
  return true;
}

std::string CrashSymbolizer::Annotate(const LogRecord& record) const {
  bool isReturn = false;
  const auto found = names_.find(AddressIn(record, &isReturn));
  if (found == names_.end()) return record.message;
  return record.message + "  " + found->second;
}
