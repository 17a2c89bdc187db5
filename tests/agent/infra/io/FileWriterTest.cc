#include "agent/src/infra/io/FileWriter.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

class FileWriterTest : public ::testing::Test {
 protected:
  TempDir dir_;
  LogCapture log_;
  const std::string path_ = dir_.Write("f", "previous content");
  std::unique_ptr<FileWriter> writer_ = CreateFileWriter(path_.c_str(), 32);
};

TEST_F(FileWriterTest, ModesKeepFlushOrCloseAndEachOpenTruncates) {
  EXPECT_EQ(3u, writer_->WriteString("abc"));
  EXPECT_EQ(1u, writer_->WriteString("d"));
  EXPECT_EQ("d", ReadWholeFile(path_));
  writer_->Write("one", 3, FileWriter::kWriteKeepOpen);
  writer_->Write("two", 3, FileWriter::kWriteAndFlush);
  EXPECT_EQ("onetwo", ReadWholeFile(path_)) << "mode 2 flushed both";
  writer_->Write("3", 1, FileWriter::kWriteAndClose);
  EXPECT_EQ("onetwo3", ReadWholeFile(path_));
}

TEST_F(FileWriterTest, SeekRewritesInPlace) {
  writer_->Write("header-tail", 11, FileWriter::kWriteKeepOpen);
  EXPECT_EQ(0, writer_->Seek(0));
  writer_->Write("HEADER", 6, FileWriter::kWriteKeepOpen);
  EXPECT_EQ(0, writer_->Seek(-1));
  writer_->Write("!", 1, FileWriter::kWriteAndClose);
  EXPECT_EQ("HEADER-tail!", ReadWholeFile(path_));
  EXPECT_EQ(-1, writer_->Seek(-3));
}

TEST_F(FileWriterTest, OpenAndFlushFailuresAreReported) {
  const std::string path = dir_.File("no/dir/f");
  auto writer = CreateFileWriter(path.c_str(), 32);
  EXPECT_EQ(0u, writer->Write("x", 1, FileWriter::kWriteAndFlush));
  EXPECT_EQ(-1, writer->Seek(0));
  EXPECT_TRUE(writer->FileWriterFlush()) << "nothing open: all streams flushed";
  EXPECT_EQ(log_.Dump(), "Failed opening file '" + path + "', errno No such file or directory\n" +
                             "Failed opening file '" + path +
                             "', errno No such file or directory. Cannot seek file\n");
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no /dev/full";
  auto full = CreateFileWriter("/dev/full", 32);
  full->Write("x", 1, FileWriter::kWriteKeepOpen);
  EXPECT_FALSE(full->FileWriterFlush());
  EXPECT_TRUE(log_.Contains("Failed flushing '/dev/full', errno No space left on device(28)\n"));
}

}  // namespace
