#include "agent/src/infra/io/FileReader.h"

#include <gtest/gtest.h>
#include <unistd.h>
#include <string>

#include "agent/src/infra/io/FileWriter.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDir.h"

namespace {

class FileReaderTest : public ::testing::Test {
 protected:
  TempDir dir_;
  LogCapture log_;
};

TEST_F(FileReaderTest, PathBoundIsOneAboveTheWriters) {
  const std::string path255 = "/" + std::string(254, 'p');
  EXPECT_NE(nullptr, CreateFileReader(path255.c_str(), 1));
  EXPECT_EQ(nullptr, CreateFileWriter(path255.c_str(), 32));
  EXPECT_EQ(1u,
            log_.Count(LoggerLevel::ERROR, "filename '" + path255 + "' too long (255 > 256)\n"));
  const std::string path256 = path255 + "q";
  EXPECT_EQ(nullptr, CreateFileReader(path256.c_str(), 1));
  EXPECT_EQ(1u,
            log_.Count(LoggerLevel::ERROR, "Filename '" + path256 + "' too long (256 > 256)\n"));
}

TEST_F(FileReaderTest, LineLengthCountsTheTerminator) {
  auto reader = CreateFileReader(dir_.Write("f", "ab\nlonger line\n").c_str(), 1);
  ASSERT_NE(nullptr, reader);
  char line[8];
  EXPECT_EQ(4, reader->ReadLine(line, sizeof(line)));
  EXPECT_STREQ("ab\n", line);
  EXPECT_EQ(8, reader->ReadLine(line, sizeof(line))) << "a long line comes in pieces";
  EXPECT_STREQ("longer ", line);
  EXPECT_EQ(6, reader->ReadLine(line, sizeof(line)));
  EXPECT_EQ(0, reader->ReadLine(line, sizeof(line)));
}

TEST_F(FileReaderTest, MissingFileReadsNothingAndSaysWhy) {
  auto reader = CreateFileReader(dir_.File("missing").c_str(), 1);
  ASSERT_NE(nullptr, reader);
  char line[8];
  EXPECT_EQ(0, reader->ReadLine(line, sizeof(line)));
  EXPECT_EQ(0u, reader->Read(line, sizeof(line)));
  EXPECT_EQ(0u, reader->GetSize());
  EXPECT_EQ(0, reader->Seek(0)) << "callers must not take this for success";
  EXPECT_EQ(1u, log_.Count("Failed opening file '" + dir_.File("missing") +
                           "', errno No such file or directory\n"));
  EXPECT_EQ(2u, log_.Count("', errno No such file or directory(2)\n"));
  EXPECT_TRUE(log_.Contains("Failed getting " + dir_.File("missing") + " stats, errno "));
}

TEST_F(FileReaderTest, CloseOnlyWhenAllowed) {
  const std::string path = dir_.Write("f", "one\ntwo\n");
  char line[16];
  auto kept = CreateFileReader(path.c_str(), 0);
  kept->ReadLine(line, sizeof(line));
  kept->Close();
  EXPECT_EQ(5, kept->ReadLine(line, sizeof(line))) << "stream kept: reading goes on";
  EXPECT_STREQ("two\n", line);

  auto closing = CreateFileReader(path.c_str(), 1);
  closing->ReadLine(line, sizeof(line));
  closing->Close();
  EXPECT_EQ(5, closing->ReadLine(line, sizeof(line))) << "reopened from the start";
  EXPECT_STREQ("one\n", line);
}

TEST_F(FileReaderTest, SeekSizeAndDescriptor) {
  auto reader = CreateFileReader(dir_.Write("f", "0123456789").c_str(), 1);
  EXPECT_EQ(10u, reader->GetSize());
  char buffer[4] = {};
  EXPECT_EQ(0, reader->Seek(-1));
  EXPECT_EQ(0u, reader->Read(buffer, 3)) << "positioned at the end";
  EXPECT_EQ(-1, reader->Seek(-5));
  EXPECT_EQ(0, reader->Seek(4));
  EXPECT_EQ(3u, reader->Read(buffer, 3));
  EXPECT_STREQ("456", buffer);
  EXPECT_GE(reader->GetFd(), 0);
}

}  // namespace
