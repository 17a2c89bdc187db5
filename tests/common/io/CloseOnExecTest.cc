// The reader's and writer's files stay out of executed children.

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "common/io/FileReader.h"
#include "common/io/FileWriter.h"
#include "tests/support/TempDir.h"

namespace {

TEST(CloseOnExecTest, OpenFilesAreNotInherited) {
  TempDir dir;
  auto reader = CreateFileReader(dir.Write("read", "text").c_str(), 1);
  auto writer = CreateFileWriter(dir.File("written").c_str(), 32);
  ASSERT_GE(reader->GetFd(), 0);
  ASSERT_EQ(writer->Write("x", 1, FileWriter::kWriteKeepOpen), 1u);
  // grep exits with 1 when the shell holds neither file.
  EXPECT_EQ(WEXITSTATUS(system(("ls -l /proc/$$/fd | grep -q " + dir.path()).c_str())), 1);
}

}  // namespace
