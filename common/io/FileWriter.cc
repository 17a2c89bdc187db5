#include "common/io/FileWriter.h"

#include <cerrno>
#include <cstring>
#include <new>

#include "common/Log.h"
#include "common/StringUtils.h"
#include "common/io/Descriptor.h"

namespace {
constexpr uint32_t kComponent = LOGGER_COMPONENT_INFRA_IO;
}  // namespace

std::unique_ptr<FileWriter> CreateFileWriter(const char* path, int32_t /*bufferSize*/) {
  std::unique_ptr<FileWriter> writer(new (std::nothrow) FileWriter());
  if (!writer || !writer->FileWriterCtor(path)) return nullptr;
  return writer;
}

bool FileWriter::FileWriterCtor(const char* path) {
  if (path == nullptr) return false;
  const size_t len = std::strlen(path);
  if (len >= kMaxPath - 1) {
    QWD_LOG_ERROR(kComponent, "filename '%s' too long (%zu > %zu)\n", path, len, kMaxPath);
    return false;
  }
  SafeStrCopy(path_, path);
  return true;
}

FileWriter::~FileWriter() { Close(); }

bool FileWriter::OpenIfNeeded() {
  if (fd_ < 0) fd_ = open(path_.data(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  return fd_ >= 0;
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
  const size_t written = TransferAll(write, fd_, static_cast<const char*>(buffer), n);
  if (mode == kWriteAndClose) Close();
  return written;
}

int FileWriter::Seek(int64_t offset) {
  if (!OpenIfNeeded()) {
    QWD_LOG_ERROR(kComponent, "Failed opening file '%s', errno %s. Cannot seek file\n",
                  path_.data(), std::strerror(errno));
    return -1;
  }
  return SeekDescriptor(fd_, offset);
}

void FileWriter::Close() {
  if (fd_ >= 0) {
    close(fd_);
    fd_ = -1;
  }
}
