#pragma once

// Log lines in a rotating set of files "<dir>/<prefix>_<pid>_<generation>.<index>".
// Each opened file starts with the last account id header written (it is kept
// process-wide) and each closed file ends with the end marker. A file rotates
// after the line that takes it to its size limit, so it exceeds the limit by
// at most one line plus the end marker.
//
// The running size starts from the file's size on disk when it is opened,
// before the header write empties it: a file reopened after it was filled in
// the same run counts as full, and its first line rotates again. This is
// deliberate; with two files, once both are full, each further line goes into
// a freshly emptied file.

#include <array>
#include <memory>

#include "common/io/FileWriter.h"
#include "logger/LogLineFormatter.h"
#include "logger/LoggerBaseTarget.h"
#include "logger/LoggerConfig.h"

class LoggerFileTarget final : public LoggerBaseTarget {
 public:
  static constexpr size_t kPathSize = 256;
  // Longest stored header, terminator included: the logger's header line is
  // of one fixed length.
  static constexpr size_t kHeaderLineSize = LogLineFormatter::kHeaderLineLength + 1;

  // Null for a null or non-file configuration, a rotation of zero files or
  // exhausted memory. No file is opened until the target is enabled.
  static std::unique_ptr<LoggerFileTarget> Create(const LoggerConfig* fileConfig);
  // Drops the writer without the end marker.
  ~LoggerFileTarget() override = default;

  // Appends the line with a flush; false when disabled, without a file (after
  // a failed reopen) or when nothing could be written. A file that is gone
  // (its directory removed) or was never opened is made again, directory
  // included, at most once a second, and the line goes into it.
  bool Write(const char* text, size_t length) override;
  // Rewrites the header at offset 0 of the current file and keeps it for the
  // files opened later. A disabled target writes and keeps nothing (true).
  bool WriteHeader(const char* text, size_t length) override;
  // A new generation starts again at file index 0; the current generation is
  // refused (false) and the file kept.
  bool SetGeneration(uint32_t generation) override;
  // Opens the current file; the target stays disabled when that fails.
  void Enable() override;
  // Closes the current file with the end marker.
  void Disable() override;

 private:
  LoggerFileTarget() = default;
  bool OpenCurrentFile();
  void CloseCurrentFile();
  bool WriteHeaderAtStart(const char* text, size_t length);
  void ReopenIfLost();
  // The directory made again and the current file reopened, at most once a
  // reopen period.
  void Reopen();

  uint32_t currentSize_ = 0;            // bytes counted in the current file
  uint32_t fileIndex_ = 0;              // current file, 0 .. numFiles_ - 1
  uint32_t numFiles_ = 0;               // files in the rotation
  uint32_t maxFileSize_ = 0;            // size after which a file rotates
  std::unique_ptr<char[]> directory_;   // directory of the files
  std::unique_ptr<char[]> prefix_;      // start of every file name
  std::array<char, kPathSize> path_{};  // name of the current file
  int32_t pid_ = 0;                     // process id in the file names
  std::unique_ptr<FileWriter> writer_;  // the open file, or null
  int32_t nextReopenSec_ = 0;           // monotonic second of the next reopen allowed
};
