#include "agent/src/infra/io/FileReader.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

TEST(FileReaderTest, LinesCountTheTerminatorSeekAndSize) {
  TempDir dir;
  char line[8] = {};
  auto reader = CreateFileReader(dir.Write("f", "ab\nlonger line\n").c_str(), 1);
  EXPECT_EQ(4, reader->ReadLine(line, sizeof(line)));
  EXPECT_STREQ("ab\n", line);
  EXPECT_EQ(8, reader->ReadLine(line, sizeof(line)));
  EXPECT_STREQ("longer ", line) << "a long line comes in pieces";
  EXPECT_EQ(6, reader->ReadLine(line, sizeof(line)));
  EXPECT_EQ(0, reader->ReadLine(line, sizeof(line)));
  EXPECT_EQ(15u, reader->GetSize());
  EXPECT_EQ(-1, reader->Seek(-5));
  EXPECT_EQ(0, reader->Seek(4));
  EXPECT_EQ(3u, reader->Read(line, 3));
  EXPECT_EQ(std::string(line, 3), "ong");
  EXPECT_EQ(0, reader->Seek(-1));
  EXPECT_EQ(0u, reader->Read(line, 3)) << "positioned at the end";
}

// A reader that may close reopens from the start; a missing file reads
// nothing.
TEST(FileReaderTest, CloseOnlyWhenAllowedAndAMissingFileReadsNothing) {
  LogCapture log;
  TempDir dir;
  char line[8] = {};
  const std::string path = dir.Write("f", "one\ntwo\n");
  for (const int32_t closeAllowed : {0, 1}) {
    auto reader = CreateFileReader(path.c_str(), closeAllowed);
    reader->ReadLine(line, sizeof(line));
    reader->Close();
    reader->ReadLine(line, sizeof(line));
    EXPECT_STREQ(closeAllowed == 1 ? "one\n" : "two\n", line);
  }
  auto missing = CreateFileReader(dir.File("missing").c_str(), 1);
  EXPECT_EQ(0, missing->ReadLine(line, sizeof(line)));
  EXPECT_EQ(0u, missing->Read(line, sizeof(line)));
  EXPECT_EQ(0u, missing->GetSize());
  EXPECT_TRUE(log.Contains("Failed opening file '" + dir.File("missing")));
}

}  // namespace
