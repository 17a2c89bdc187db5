#include "agent/src/infra/io/DirReader.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>
#include <utility>

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

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
