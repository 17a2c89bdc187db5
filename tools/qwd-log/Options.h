#pragma once

// qwd-log's command line: what to read, which entries to keep and how to
// print them. A bad option or value is named in the error, then the usage.

#include <string>
#include <vector>

struct Options {
  bool help = false;               // --help: the usage on standard output
  bool json = false;               // JSON Lines instead of the human form
  bool follow = false;             // keep reading as the files grow
  bool summary = false;            // the summary instead of the lines
  int minLevel = 0;                // rank of the lowest level kept
  std::string component;           // kept when the source path or function holds it
  std::string since;               // kept from this time on, "" for no bound
  std::string until;               // kept up to this time (a prefix: its whole span)
  std::string symbolize;           // the unstripped binary that names crash frames, or ""
  std::vector<std::string> paths;  // directories and files to read
};

extern const char kUsage[];

// False, with the reason in *error, for an unknown option, a missing or bad
// value; an unknown level or a time that is not "YYYY-MM-DD[ HH[:MM[:SS]]]".
bool ParseOptions(int argc, char** argv, Options* options, std::string* error);

// Whether an entry's time "YYYY-MM-DD HH:MM:SS" is within the bounds.
bool WithinTimes(const std::string& time, const Options& options);
