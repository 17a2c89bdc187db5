// The readers on real files: lines, pieces and positions, typed directory
// entries, and the failures each one reports. The writer is the logger
// tests' (LoggerFileTargetTest: modes, the header rewritten in place) and the
// roads' (pid files).

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>
#include <utility>

#include "common/io/DirReader.h"
#include "common/io/FileReader.h"
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

// Entries come typed with full paths; an entry that can't be read (a
// dangling link) ends the iteration.
TEST(DirReaderTest, YieldsTypedEntriesWithFullPathsUntilOneCantBeRead) {
  LogCapture log;
  TempDir dir;
  dir.Write("a", "x");
  ASSERT_EQ(0, mkdir(dir.File("b").c_str(), 0755));
  ASSERT_EQ(0, symlink("/dev/null", dir.File("c").c_str()));
  auto reader = CreateDirReader(dir.path().c_str());
  std::set<std::pair<std::string, int>> seen;
  while (reader->NextEntry() != nullptr) {
    seen.insert({reader->GetEntryFullPath(), reader->GetEntryType()});
    EXPECT_EQ(dir.path() + "/" + reader->GetEntryName(), reader->GetEntryFullPath());
  }
  const std::set<std::pair<std::string, int>> expected = {{dir.File("a"), DirReader::kRegularFile},
                                                          {dir.File("b"), DirReader::kDirectory},
                                                          {dir.File("c"), DirReader::kOther}};
  EXPECT_EQ(expected, seen);
  EXPECT_EQ(DirReader::kNone, reader->GetEntryType());
  EXPECT_EQ(nullptr, CreateDirReader(dir.File("a").c_str()));
  TempDir broken;
  ASSERT_EQ(0, symlink(broken.File("nowhere").c_str(), broken.File("dangling").c_str()));
  EXPECT_EQ(nullptr, CreateDirReader(broken.path().c_str())->NextEntry());
  EXPECT_TRUE(log.Contains("Can't read " + broken.File("dangling") + "\n"));
}

}  // namespace
