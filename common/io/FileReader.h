#pragma once

// Lazily opened binary read of one file: blocks, lines, size, seek, descriptor.
// The file opens on the first reading operation and stays open. Lines are
// read through a small buffer inside the reader, not a stdio stream with a
// heap buffer of its own.

#include <array>
#include <memory>

#include "common/io/Reader.h"

class FileReader : public Reader {
 public:
  static constexpr size_t kMaxPath = 256;

  // Null (logged) when the path has 256 characters or more.
  friend std::unique_ptr<FileReader> CreateFileReader(const char* path, int32_t closeAllowed);
  // Closes the file whatever the close-allowed flag says.
  ~FileReader() override;

  size_t Read(void* buffer, size_t n) override;
  // At most size - 1 characters, newline kept; returns the length plus one
  // (the terminator is counted), 0 at end of file, on error or when unopenable.
  int32_t ReadLine(char* buffer, int32_t size) override;
  // Closes only when the reader was created with close-allowed 1.
  void Close() override;
  // Size of the path from stat (not of the open stream); 0 on failure.
  uint32_t GetSize() override;
  int GetFd() override;
  // -1 is the end of the file, other negatives return -1 without moving.
  // Returns 0 or -1, or 0 when the file cannot be opened (callers must not
  // take that for success).
  virtual int Seek(int64_t offset);

 protected:
  FileReader() = default;
  // Refuses (logged) a path of 256 characters or more.
  bool FileReaderCtor(const char* path, int32_t closeAllowed);

 private:
  static constexpr size_t kBufferSize = 512;

  bool OpenIfNeeded();
  // Takes buffered bytes first; false at the end of the file or on an error.
  bool NextChar(char* c);
  void CloseFile();

  std::array<char, kMaxPath> path_{};         // the file, at most 255 characters
  int fd_ = -1;                               // the open file, or -1 until first use
  int32_t closeAllowed_ = 0;                  // only 1 lets Close() close the file
  std::array<char, kBufferSize> buffered_{};  // read ahead for ReadLine
  size_t bufferedLength_ = 0;                 // bytes in buffered_
  size_t bufferedPosition_ = 0;               // next unread byte of buffered_
};

std::unique_ptr<FileReader> CreateFileReader(const char* path, int32_t closeAllowed);
