#include "agent/src/infra/io/FileReader.h"

#include <gtest/gtest.h>

#include <string>

#include "agent/src/infra/io/FileWriter.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

class FileReaderTest : public ::testing::Test {
 protected:
  TempDir dir_;
  LogCapture log_;
  char line_[8] = {};
};

TEST_F(FileReaderTest, PathBoundIsOneAboveTheWriters) {
  const std::string path255 = "/" + std::string(254, 'p');
  EXPECT_NE(nullptr, CreateFileReader(path255.c_str(), 1));
  EXPECT_EQ(nullptr, CreateFileWriter(path255.c_str(), 32));
  EXPECT_EQ(nullptr, CreateFileReader((path255 + "q").c_str(), 1));
  EXPECT_EQ(log_.Dump(), "filename '" + path255 + "' too long (255 > 256)\nFilename '" + path255 +
                             "q' too long (256 > 256)\n");
}

TEST_F(FileReaderTest, LinesCountTheTerminatorSeekAndSize) {
  auto reader = CreateFileReader(dir_.Write("f", "ab\nlonger line\n").c_str(), 1);
  EXPECT_EQ(4, reader->ReadLine(line_, sizeof(line_)));
  EXPECT_STREQ("ab\n", line_);
  EXPECT_EQ(8, reader->ReadLine(line_, sizeof(line_)));
  EXPECT_STREQ("longer ", line_) << "a long line comes in pieces";
  EXPECT_EQ(6, reader->ReadLine(line_, sizeof(line_)));
  EXPECT_EQ(0, reader->ReadLine(line_, sizeof(line_)));
  EXPECT_EQ(15u, reader->GetSize());
  EXPECT_EQ(-1, reader->Seek(-5));
  EXPECT_EQ(0, reader->Seek(4));
  EXPECT_EQ(3u, reader->Read(line_, 3));
  EXPECT_EQ(std::string(line_, 3), "ong");
  EXPECT_EQ(0, reader->Seek(-1));
  EXPECT_EQ(0u, reader->Read(line_, 3)) << "positioned at the end";
  EXPECT_GE(reader->GetFd(), 0);
}

TEST_F(FileReaderTest, MissingFileReadsNothingAndSaysWhy) {
  auto reader = CreateFileReader(dir_.File("missing").c_str(), 1);
  EXPECT_EQ(0, reader->ReadLine(line_, sizeof(line_)));
  EXPECT_EQ(0u, reader->Read(line_, sizeof(line_)));
  EXPECT_EQ(0u, reader->GetSize());
  EXPECT_EQ(0, reader->Seek(0)) << "callers must not take this for success";
  EXPECT_EQ(1u, log_.Count("Failed opening file '" + dir_.File("missing") +
                           "', errno No such file or directory\n"));
  EXPECT_EQ(2u, log_.Count("', errno No such file or directory(2)\n"));
  EXPECT_TRUE(log_.Contains("Failed getting " + dir_.File("missing") + " stats, errno "));
}

TEST_F(FileReaderTest, CloseOnlyWhenAllowed) {
  const std::string path = dir_.Write("f", "one\ntwo\n");
  for (const int32_t closeAllowed : {0, 1}) {
    auto reader = CreateFileReader(path.c_str(), closeAllowed);
    reader->ReadLine(line_, sizeof(line_));
    reader->Close();
    reader->ReadLine(line_, sizeof(line_));
    EXPECT_STREQ(closeAllowed == 1 ? "one\n" : "two\n", line_) << "reopened only when closed";
  }
}

}  // namespace
