// The file reader on a real file: lines, pieces and positions. The config
// reader, the process (its cmdline) and the module read through it in their
// own tests; the writer is the logger tests' (LoggerFileTargetTest: modes, the
// header rewritten in place) and the roads' (pid files).

#include <gtest/gtest.h>

#include <string>

#include "common/io/FileReader.h"
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

// The reader reads ahead in a buffer far shorter than these texts.
TEST(FileReaderTest, LinesAndBlocksGoOnPastTheReadAhead) {
  TempDir dir;
  const std::string longLine(600, 'x');
  char line[1024] = {};
  auto reader =
      CreateFileReader(dir.Write("f", longLine + "\nab\n" + std::string(1000, 'y')).c_str(), 1);
  EXPECT_EQ(602, reader->ReadLine(line, sizeof(line)));
  EXPECT_EQ(longLine + "\n", line);
  EXPECT_EQ(4, reader->ReadLine(line, sizeof(line)));
  EXPECT_EQ(1000u, reader->Read(line, sizeof(line)));
  EXPECT_EQ(std::string(line, 1000), std::string(1000, 'y'));
  EXPECT_EQ(0, reader->Seek(601));
  EXPECT_EQ(4, reader->ReadLine(line, sizeof(line))) << "the read-ahead is dropped by a seek";
  EXPECT_STREQ("ab\n", line);
}

}  // namespace
