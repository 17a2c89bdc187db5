#include "agent/src/infra/io/FileWriter.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

// Each open truncates; seeks rewrite in place (the logger's header).
TEST(FileWriterTest, ModesKeepFlushOrCloseAndSeekRewritesInPlace) {
  TempDir dir;
  const std::string path = dir.Write("f", "previous content");
  auto writer = CreateFileWriter(path.c_str(), 32);
  EXPECT_EQ(3u, writer->WriteString("abc"));
  EXPECT_EQ(1u, writer->WriteString("d"));
  EXPECT_EQ("d", ReadWholeFile(path));
  writer->Write("header-", 7, FileWriter::kWriteKeepOpen);
  writer->Write("tail", 4, FileWriter::kWriteAndFlush);
  EXPECT_EQ("header-tail", ReadWholeFile(path)) << "the flush wrote both";
  EXPECT_EQ(0, writer->Seek(0));
  writer->Write("HEADER", 6, FileWriter::kWriteKeepOpen);
  EXPECT_EQ(0, writer->Seek(-1));
  writer->Write("!", 1, FileWriter::kWriteAndClose);
  EXPECT_EQ("HEADER-tail!", ReadWholeFile(path));
  EXPECT_EQ(-1, writer->Seek(-3));
}

TEST(FileWriterTest, OpenAndFlushFailuresAreReported) {
  LogCapture log;
  TempDir dir;
  auto writer = CreateFileWriter(dir.File("no/dir/f").c_str(), 32);
  EXPECT_EQ(0u, writer->Write("x", 1, FileWriter::kWriteAndFlush));
  EXPECT_EQ(-1, writer->Seek(0));
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  auto full = CreateFileWriter("/dev/full", 32);
  full->Write("x", 1, FileWriter::kWriteKeepOpen);
  EXPECT_FALSE(full->FileWriterFlush());
  EXPECT_TRUE(log.Contains("Failed flushing '/dev/full', errno No space left on device(28)\n"));
}

}  // namespace
