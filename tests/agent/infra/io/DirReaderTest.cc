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

class DirReaderTest : public ::testing::Test {
 protected:
  TempDir dir_;
  LogCapture log_;
};

TEST_F(DirReaderTest, YieldsTypedEntriesWithFullPaths) {
  dir_.Write("a", "x");
  ASSERT_EQ(0, mkdir(dir_.File("b").c_str(), 0755));
  ASSERT_EQ(0, symlink("/dev/null", dir_.File("c").c_str()));
  auto reader = CreateDirReader(dir_.path().c_str());
  std::set<std::pair<std::string, int>> seen;
  while (reader->NextEntry() != nullptr) {
    seen.insert({reader->GetEntryFullPath(), reader->GetEntryType()});
    EXPECT_EQ(dir_.path() + "/" + reader->GetEntryName(), reader->GetEntryFullPath());
  }
  const std::set<std::pair<std::string, int>> expected = {{dir_.File("a"), DirReader::kRegularFile},
                                                          {dir_.File("b"), DirReader::kDirectory},
                                                          {dir_.File("c"), DirReader::kOther}};
  EXPECT_EQ(expected, seen);
  EXPECT_EQ(DirReader::kNone, reader->GetEntryType());
  EXPECT_STREQ("", reader->GetEntryName());
}

TEST_F(DirReaderTest, FailuresAreLoggedAndAnUnreadableEntryEndsTheIteration) {
  EXPECT_EQ(nullptr, CreateDirReader(nullptr));
  EXPECT_EQ(nullptr, CreateDirReader(dir_.Write("file", "x").c_str()));
  ASSERT_EQ(0, unlink(dir_.File("file").c_str()));
  ASSERT_EQ(0, symlink(dir_.File("nowhere").c_str(), dir_.File("dangling").c_str()));
  auto reader = CreateDirReader(dir_.path().c_str());
  EXPECT_EQ(nullptr, reader->NextEntry());
  EXPECT_STREQ("", reader->GetEntryFullPath());
  EXPECT_EQ(log_.Dump(),
            "Can't create DirReader object - path can't be NULL\nCan't open " + dir_.File("file") +
                " - not a directory or doesn't exist\nDirReader ctor failed\nCan't read " +
                dir_.File("dangling") + "\n");
  EXPECT_EQ(log_.Lines().back().level, LoggerLevel::WARN);
}

}  // namespace
