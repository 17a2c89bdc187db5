#pragma once

// A fresh directory under $TMPDIR (or /tmp), removed with its content when the
// object goes away.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

class TempDir {
 public:
  TempDir() {
    const char* base = std::getenv("TMPDIR");
    path_ = std::string(base != nullptr ? base : "/tmp") + "/qwd-test-XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed for " << path_;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name.
  std::string File(const std::string& name) const { return path_ + "/" + name; }
  // Writes content to path()/name, making its directories, and returns the
  // full path.
  std::string Write(const std::string& name, const std::string& content) const {
    std::filesystem::create_directories(std::filesystem::path(File(name)).parent_path());
    std::ofstream(File(name), std::ios::binary | std::ios::trunc) << content;
    return File(name);
  }

 private:
  std::string path_;
};

// Whole content of a file ("" when it cannot be read).
inline std::string ReadWholeFile(const std::string& path) {
  std::stringstream all;
  all << std::ifstream(path, std::ios::binary).rdbuf();
  return all.str();
}
