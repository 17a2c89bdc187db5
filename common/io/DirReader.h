#pragma once

// Iteration over the entries of one directory with their type and full path.
// "." and ".." are skipped; links are followed when typing an entry.

#include <dirent.h>

#include <array>
#include <memory>

class DirReader {
 public:
  static constexpr size_t kMaxName = 4097;

  enum EntryType : int32_t { kNone = 0, kRegularFile = 1, kDirectory = 2, kOther = 3 };

  // Null (logged) for a null path or a directory that cannot be opened.
  friend std::unique_ptr<DirReader> CreateDirReader(const char* path);
  virtual ~DirReader();

  // This reader while an entry is available; null at the end, or when an
  // entry cannot be stat'ed, which ends the iteration even if more follow.
  virtual DirReader* NextEntry();
  // Valid until the next NextEntry().
  virtual EntryType GetEntryType() const;
  virtual const char* GetEntryName() const;
  virtual const char* GetEntryFullPath() const;

 private:
  DirReader() = default;
  bool DirReaderCtor(const char* path);
  void ClearEntry();

  DIR* dir_ = nullptr;                          // open directory handle
  std::array<char, kMaxName> entryName_{};      // current entry's name
  std::array<char, kMaxName> dirPath_{};        // the directory itself
  std::array<char, kMaxName> entryFullPath_{};  // directory, "/" and name
  EntryType entryType_ = kNone;                 // current entry's type
};

std::unique_ptr<DirReader> CreateDirReader(const char* path);
