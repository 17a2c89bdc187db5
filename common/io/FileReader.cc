#include "common/io/FileReader.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "common/Log.h"
#include "common/StringUtils.h"
#include "common/io/Stream.h"

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

FileReader::~FileReader() {
  if (stream_ != nullptr) std::fclose(stream_);
}

bool FileReader::OpenIfNeeded() {
  if (stream_ == nullptr) {
    stream_ = OpenStream(path_.data(), "rbe");
  }
  return stream_ != nullptr;
}

size_t FileReader::Read(void* buffer, size_t n) {
  if (!OpenIfNeeded()) {
    QWD_LOG_ERROR(kComponent, "Failed opening file '%s', errno %s(%d)\n", path_.data(),
                  std::strerror(errno), errno);
    return 0;
  }
  return std::fread(buffer, 1, n, stream_);
}

int32_t FileReader::ReadLine(char* buffer, int32_t size) {
  if (!OpenIfNeeded()) {
    QWD_LOG_ERROR(kComponent, "Failed opening file '%s', errno %s\n", path_.data(),
                  std::strerror(errno));
    return 0;
  }
  if (buffer == nullptr || size < 1 || std::fgets(buffer, size, stream_) == nullptr) return 0;
  return static_cast<int32_t>(std::strlen(buffer)) + 1;
}

void FileReader::Close() {
  if (closeAllowed_ == 1 && stream_ != nullptr) {
    std::fclose(stream_);
    stream_ = nullptr;
  }
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

int FileReader::GetFd() { return OpenIfNeeded() ? fileno(stream_) : -1; }

int FileReader::Seek(int64_t offset) {
  if (!OpenIfNeeded()) {
    QWD_LOG_ERROR(kComponent, "Failed opening file '%s', errno %s(%d)\n", path_.data(),
                  std::strerror(errno), errno);
    return 0;
  }
  return SeekStream(stream_, offset);
}
