#pragma once

// A fresh directory under $TMPDIR (or /tmp), removed with its content when the
// object goes away.

#include <string>

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name.
  std::string File(const std::string& name) const { return path_ + "/" + name; }
  // Writes content to path()/name and returns the full path.
  std::string Write(const std::string& name, const std::string& content) const;

 private:
  std::string path_;
};

// Whole content of a file ("" when it cannot be read).
std::string ReadWholeFile(const std::string& path);
