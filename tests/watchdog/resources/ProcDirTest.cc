// The /proc walk on a directory whose listing takes several reads of its
// buffer: every entry once, with its name and type.

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "tests/support/TempDir.h"
#include "watchdog/resources/ProcDir.h"

namespace {

TEST(ProcDirTest, EveryEntryOnceWithItsNameAndType) {
  TempDir dir;
  std::set<std::string> expected = {".", ".."};
  for (int i = 0; i < 60; ++i) {
    const std::string name = std::to_string(1000 + i) + std::string(40, 'n');
    dir.Write(i % 2 == 0 ? name + "/status" : name, "");
    expected.insert(name);
  }
  SysResMon::ProcDir walk(dir.path().c_str());
  ASSERT_TRUE(walk.IsOpen());
  std::set<std::string> seen;
  int processes = 0;
  while (const dirent* entry = walk.Next()) {
    EXPECT_TRUE(seen.insert(entry->d_name).second) << entry->d_name;
    if (walk.IsProcessEntry(entry)) ++processes;
  }
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(processes, 30) << "the directories among them";
  EXPECT_EQ(SysResMon::CountDirEntries(dir.path().c_str()), 62);
  EXPECT_EQ(SysResMon::CountDirEntries(dir.File("missing").c_str()), -1);
}

}  // namespace
