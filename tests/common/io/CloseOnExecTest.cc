// The reader's and writer's streams stay out of executed children even with
// a C library that ignores fopen's "e" flag, as uClibc does: this test
// program's fopen drops the flag before calling the real one.

#include <dlfcn.h>

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "common/io/FileReader.h"
#include "common/io/FileWriter.h"
#include "tests/support/TempDir.h"

extern "C" FILE* fopen(const char* path, const char* mode) {
  using Fopen = FILE* (*)(const char*, const char*);
  static const auto real = reinterpret_cast<Fopen>(dlsym(RTLD_NEXT, "fopen"));
  std::string plain(mode);
  std::erase(plain, 'e');
  return real(path, plain.c_str());
}

namespace {

TEST(CloseOnExecTest, OpenStreamsAreNotInherited) {
  TempDir dir;
  auto reader = CreateFileReader(dir.Write("read", "text").c_str(), 1);
  auto writer = CreateFileWriter(dir.File("written").c_str(), 32);
  ASSERT_GE(reader->GetFd(), 0);
  ASSERT_EQ(writer->Write("x", 1, FileWriter::kWriteKeepOpen), 1u);
  // grep exits with 1 when the shell holds neither file.
  EXPECT_EQ(WEXITSTATUS(system(("ls -l /proc/$$/fd | grep -q " + dir.path()).c_str())), 1);
}

}  // namespace
