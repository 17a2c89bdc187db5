#include "common/io/FileReader.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "common/Log.h"
#include "common/StringUtils.h"
#include "common/io/Descriptor.h"

namespace {
constexpr uint32_t kComponent = LOGGER_COMPONENT_INFRA_IO;
}  // namespace

std::unique_ptr<FileReader> CreateFileReader(const char* path, int32_t closeAllowed) {
  std::unique_ptr<FileReader> reader(new (std::nothrow) FileReader());
  if (!reader || !reader->FileReaderCtor(path, closeAllowed)) return nullptr;
  return reader;
}

bool FileReader::FileReaderCtor(const char* path, int32_t closeAllowed) {
  if (path == nullptr) return false;
  const size_t len = std::strlen(path);
  if (len >= kMaxPath) {
    QWD_LOG_ERROR(kComponent, "Filename '%s' too long (%zu > %zu)\n", path, len, kMaxPath);
    return false;
  }
  SafeStrCopy(path_, path);
  closeAllowed_ = closeAllowed;
  return true;
}

FileReader::~FileReader() { CloseFile(); }

bool FileReader::OpenIfNeeded() {
  if (fd_ < 0) fd_ = open(path_.data(), O_RDONLY | O_CLOEXEC);
  return fd_ >= 0;
}

void FileReader::CloseFile() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
  bufferedLength_ = 0;
  bufferedPosition_ = 0;
}

bool FileReader::NextChar(char* c) {
  if (bufferedPosition_ == bufferedLength_) {
    ssize_t got = 0;
    do {
      got = read(fd_, buffered_.data(), buffered_.size());
    } while (got < 0 && errno == EINTR);
    bufferedLength_ = got > 0 ? static_cast<size_t>(got) : 0;
    bufferedPosition_ = 0;
    if (bufferedLength_ == 0) return false;
  }
  *c = buffered_[bufferedPosition_++];
  return true;
}

size_t FileReader::Read(void* buffer, size_t n) {
  if (!OpenIfNeeded()) {
    QWD_LOG_ERROR(kComponent, "Failed opening file '%s', errno %s(%d)\n", path_.data(),
                  std::strerror(errno), errno);
    return 0;
  }
  auto* bytes = static_cast<char*>(buffer);
  size_t done = 0;
  while (done < n && bufferedPosition_ < bufferedLength_)
    bytes[done++] = buffered_[bufferedPosition_++];
  return done + TransferAll(read, fd_, bytes + done, n - done);
}

int32_t FileReader::ReadLine(char* buffer, int32_t size) {
  if (!OpenIfNeeded()) {
    QWD_LOG_ERROR(kComponent, "Failed opening file '%s', errno %s\n", path_.data(),
                  std::strerror(errno));
    return 0;
  }
  if (buffer == nullptr || size < 1) return 0;
  // fgets' rules: up to size - 1 characters, through the newline; nothing
  // read at the end of the file is a failure.
  int32_t used = 0;
  char c = '\0';
  while (used + 1 < size && NextChar(&c)) {
    buffer[used++] = c;
    if (c == '\n') break;
  }
  if (used == 0 && size > 1) return 0;
  buffer[used] = '\0';
  return static_cast<int32_t>(std::strlen(buffer)) + 1;
}

void FileReader::Close() {
  if (closeAllowed_ == 1) CloseFile();
}

uint32_t FileReader::GetSize() {
  struct stat st {};
  if (stat(path_.data(), &st) != 0) {
    QWD_LOG_ERROR(kComponent, "Failed getting %s stats, errno %s\n", path_.data(),
                  std::strerror(errno));
    return 0;
  }
  return static_cast<uint32_t>(st.st_size);
}

int FileReader::GetFd() { return OpenIfNeeded() ? fd_ : -1; }

int FileReader::Seek(int64_t offset) {
  if (!OpenIfNeeded()) {
    QWD_LOG_ERROR(kComponent, "Failed opening file '%s', errno %s(%d)\n", path_.data(),
                  std::strerror(errno), errno);
    return 0;
  }
  if (offset < -1) return -1;
  bufferedLength_ = 0;
  bufferedPosition_ = 0;
  return SeekDescriptor(fd_, offset);
}
