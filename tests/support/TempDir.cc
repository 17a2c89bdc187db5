#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/qwd-test-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed for " << pattern;
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::Write(const std::string& name, const std::string& content) const {
  const std::string full = File(name);
  std::ofstream out(full, std::ios::binary | std::ios::trunc);
  out << content;
  return full;
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream all;
  all << in.rdbuf();
  return all.str();
}
