#pragma once

// Lazily opened write of one file. The file opens created or emptied, mode
// 0666 less the umask, on first use; each Write chooses to close it or keep
// it. Writes go straight to the file, so there is nothing left to flush.

#include <array>
#include <memory>

#include "common/io/Writer.h"

class FileWriter : public Writer {
 public:
  static constexpr size_t kMaxPath = 256;

  enum WriteMode : int32_t { kWriteAndClose = 0, kWriteKeepOpen = 1, kWriteAndFlush = 2 };

  // Null (logged) when the path has 255 characters or more: one below the
  // reader's bound, deliberately.
  friend std::unique_ptr<FileWriter> CreateFileWriter(const char* path, int32_t bufferSize);
  // Closes the file.
  ~FileWriter() override;

  // Write(text, strlen(text), kWriteAndClose): each call replaces the content.
  size_t WriteString(const char* text) override;
  size_t Write(const void* buffer, size_t n, int32_t mode) override;
  // Opens if needed (-1 when that fails), then the reader's rules.
  int Seek(int64_t offset) override;
  void Close() override;

 private:
  FileWriter() = default;
  bool FileWriterCtor(const char* path);
  bool OpenIfNeeded();

  std::array<char, kMaxPath> path_{};  // the file, at most 254 characters
  int fd_ = -1;                        // the open file, or -1
};

// bufferSize is accepted for the callers' sake: every write goes straight to
// the descriptor, so there is no buffer to size.
std::unique_ptr<FileWriter> CreateFileWriter(const char* path, int32_t bufferSize);
