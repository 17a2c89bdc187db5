#pragma once

// Which files make a log and in what order they are read, and a reader that
// follows them as they grow, rotate and are reused.
//
// A log file is named "<prefix>_<pid>_<generation>.<index>" (the prefix being
// "Quillmor_<version>_<log name>"); a crash dump "<prefix>_<pid>.log". The
// logger writes the indexes of a generation in turn and then reuses them, and
// starts a new generation on request, so the order in which the files were
// written is their modification time; generation and index break ties. Each
// prefix is read whole before the next, in name order.

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

struct LogFileName {
  std::string prefix;      // everything before "_<pid>"
  int64_t pid = -1;        // process that wrote it
  int64_t generation = 0;  // 0 for a crash dump
  int64_t index = 0;       // rotation index; 0 for a crash dump
};

// Recognises both name forms in a path's last component.
bool ParseLogFileName(std::string_view path, LogFileName* out);

// The files named by the arguments, in reading order: a directory stands for
// the log files and crash dumps in it; a file is taken whatever its name.
std::vector<std::string> ListLogFiles(const std::vector<std::string>& args);

class LogTail {
 public:
  // Called with each complete line (without its newline) and the file's path.
  using LineFn = std::function<void(std::string_view line, const std::string& path)>;

  // Reads what was added to each file since the last call, in the given
  // order. A file that became shorter, or another file under the same path,
  // is read again from its start. With final, a last line without its
  // newline is given too; otherwise it waits for the rest.
  void Read(const std::vector<std::string>& paths, bool final, const LineFn& lineFn);

 private:
  struct Cursor {
    std::string path;     // the file's path
    dev_t device = 0;     // identity of the file read so far
    ino_t inode = 0;      // with device
    off_t offset = 0;     // bytes read so far
    std::string partial;  // a last line still without its newline
  };
  Cursor& CursorFor(const std::string& path);
  void ReadFile(Cursor& cursor, bool final, const LineFn& lineFn);

  std::vector<Cursor> cursors_;  // one per path seen
};
