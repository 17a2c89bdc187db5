#pragma once

// Crash frames as function, file and line, for `qwd-log --symbolize BINARY`.
//
// The dump holds the absolute addresses of the fault ("Crashed at [pc]") and
// of each frame's return address ("Frame N: ra  sp:..."). A position-
// independent program ran at a load address of its own, which the addresses
// carry: the load bias is the one page-aligned shift that puts the most of
// them in the binary's code, a return address right after a call instruction
// (MIPS: the call 8 bytes before, with its delay slot; x86: a call ending
// there). Frames outside the binary (the C library) stay as they are. The
// addresses are then given, all at once, to the addr2line of the binary's
// own CPU: mips-linux-gnu-addr2line, arm-linux-gnueabihf-addr2line,
// aarch64-linux-gnu-addr2line or addr2line ($QWD_ADDR2LINE overrides).

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tools/qwd-log/LogRecord.h"

class CrashSymbolizer {
 public:
  // Null, with the reason in *error, when the binary is no ELF file with code.
  static std::unique_ptr<CrashSymbolizer> Open(const std::string& binary, std::string* error);

  // Notes the addresses of a crash record; other records are ignored.
  void Collect(const LogRecord& record);
  // Finds the bias and names every collected address; false, with the
  // reason in *error, when no bias fits or addr2line cannot be run.
  bool Resolve(std::string* error);
  // The record's message with "  <function> at <file>:<line>" appended when
  // the record is a crash line whose address was named.
  std::string Annotate(const LogRecord& record) const;

 private:
  CrashSymbolizer() = default;
  // The address a crash message names, 0 for none; *isReturn for a frame's.
  static uint64_t AddressIn(const LogRecord& record, bool* isReturn);
  bool InCode(uint64_t address) const;
  bool FollowsCall(uint64_t address) const;
  uint64_t FindBias() const;

  std::string binary_;                                // the unstripped program
  uint16_t machine_ = 0;                              // ELF e_machine
  bool bigEndian_ = false;                            // byte order of its code
  bool positionIndependent_ = false;                  // ET_DYN: loaded at a bias
  uint64_t codeStart_ = 0;                            // executable segment, link addresses
  std::vector<uint8_t> code_;                         // its bytes
  std::vector<std::pair<uint64_t, bool>> addresses_;  // run-time address, is a return address
  std::map<uint64_t, std::string> names_;             // run-time address -> where
};
