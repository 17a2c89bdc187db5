#include "common/io/FileWriter.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "common/Log.h"
#include "common/StringUtils.h"
#include "common/io/Stream.h"

namespace {
constexpr uint32_t kComponent = LOGGER_COMPONENT_INFRA_IO;
}  // namespace

std::unique_ptr<FileWriter> CreateFileWriter(const char* path, int32_t bufferSize) {
  std::unique_ptr<FileWriter> writer(new (std::nothrow) FileWriter());
  if (!writer || !writer->FileWriterCtor(path, bufferSize)) return nullptr;
  return writer;
}

bool FileWriter::FileWriterCtor(const char* path, int32_t bufferSize) {
  if (path == nullptr) return false;
  const size_t len = std::strlen(path);
  if (len >= kMaxPath - 1) {
    QWD_LOG_ERROR(kComponent, "filename '%s' too long (%zu > %zu)\n", path, len, kMaxPath);
    return false;
  }
  SafeStrCopy(path_, path);
  bufferSize_ = bufferSize;
  return true;
}

FileWriter::~FileWriter() { Close(); }

bool FileWriter::OpenIfNeeded() {
  if (stream_ == nullptr) stream_ = OpenStream(path_.data(), "wbe");
  return stream_ != nullptr;
}

size_t FileWriter::WriteString(const char* text) {
  return Write(text, std::strlen(text), kWriteAndClose);
}

size_t FileWriter::Write(const void* buffer, size_t n, int32_t mode) {
  if (!OpenIfNeeded()) {
    QWD_LOG_ERROR(kComponent, "Failed opening file '%s', errno %s\n", path_.data(),
                  std::strerror(errno));
    return 0;
  }
  const size_t written = std::fwrite(buffer, 1, n, stream_);
  if (mode == kWriteAndClose) {
    Close();
  } else if (mode == kWriteAndFlush) {
    std::fflush(stream_);
  }
  return written;
}

int FileWriter::Seek(int64_t offset) {
  if (!OpenIfNeeded()) {
    QWD_LOG_ERROR(kComponent, "Failed opening file '%s', errno %s. Cannot seek file\n",
                  path_.data(), std::strerror(errno));
    return -1;
  }
  return SeekStream(stream_, offset);
}

void FileWriter::Close() {
  if (stream_ != nullptr) {
    std::fclose(stream_);
    stream_ = nullptr;
  }
}

bool FileWriter::FileWriterFlush() {
  if (std::fflush(stream_) != 0) {
    QWD_LOG_ERROR(kComponent, "Failed flushing '%s', errno %s(%d)\n", path_.data(),
                  std::strerror(errno), errno);
    return false;
  }
  return true;
}
