#include "common/FileUtils.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "common/RootFiles.h"
#include "common/io/FileWriter.h"

namespace {
constexpr size_t kMaxWrittenText = 32;
constexpr size_t kMaxSuffixCompare = 128;
}  // namespace

bool FileExists(const char* path) { return access(path, F_OK) == 0; }

bool symlink_exists(const char* path) {
  struct stat st {};
  return lstat(path, &st) == 0;
}

StatusCode FileChangeMode(const char* path, mode_t mode) {
  return chmod(path, mode) == 0 ? StatusCode::SUCCESS : StatusCode::FAILURE;
}

namespace FileUtils {

uint32_t GetFileSizeInBytes(const char* path) {
  struct stat st {};
  if (stat(path, &st) != 0) return 0xFFFFFFFFu;
  return static_cast<uint32_t>(st.st_size);
}

}  // namespace FileUtils

StatusCode WriteStringToFile(const char* text, const char* path) {
  auto writer = CreateFileWriter(path, 32);
  if (!writer) return StatusCode::FAILURE;
  const size_t written = writer->WriteString(text);
  return written == strnlen(text, kMaxWrittenText) ? StatusCode::SUCCESS : StatusCode::FAILURE;
}

StatusCode WritePidFile(int32_t pid, const char* path) {
  char text[32];
  std::snprintf(text, sizeof(text), "%d\n", pid);
  // Pid directories may be writable by others: a link planted there must
  // never make root write through it.
  return ReplaceFileAtomically(path, text) ? StatusCode::SUCCESS : StatusCode::FAILURE;
}

StatusCode WriteIntToFile(int32_t value, const char* path) {
  char text[32];
  std::snprintf(text, sizeof(text), "%d", value);
  return WriteStringToFile(text, path);
}

StatusCode CopyFile(const char* source, const char* destination, mode_t mode, bool keepSourceMode,
                    bool removeDestFirst) {
  const int src = open(source, O_RDONLY | O_CLOEXEC);
  if (src < 0) {
    std::printf("Can't open src");
    return StatusCode::FAILURE;
  }
  struct stat st {};
  fstat(src, &st);
  const mode_t newMode = keepSourceMode ? st.st_mode : mode;
  if (removeDestFirst) std::remove(destination);
  const int dst = open(destination, O_WRONLY | O_CREAT | O_CLOEXEC, newMode);
  if (dst < 0) {
    std::printf("Can't open or create dest");
    close(src);
    return StatusCode::FAILURE;
  }
  const ssize_t copied = sendfile(dst, src, nullptr, static_cast<size_t>(st.st_size));
  close(src);
  close(dst);
  return copied == -1 ? StatusCode::FAILURE : StatusCode::SUCCESS;
}

bool StrEndsWith(const char* text, const char* suffix) {
  if (text == nullptr || suffix == nullptr) return false;
  const size_t textLen = strnlen(text, kMaxSuffixCompare);
  const size_t suffixLen = strnlen(suffix, kMaxSuffixCompare);
  if (textLen == 0 || suffixLen == 0 || textLen <= suffixLen) return false;
  return std::memcmp(text + textLen - suffixLen, suffix, suffixLen) == 0;
}
