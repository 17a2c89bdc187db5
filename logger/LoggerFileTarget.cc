#include "logger/LoggerFileTarget.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <new>

#include "common/Mutex.h"
#include "common/RootFiles.h"
#include "common/StringUtils.h"
#include "common/TimeUtils.h"
#include "logger/LoggerUtils.h"

namespace {

constexpr int32_t kWriterBufferSize = 1024;
constexpr mode_t kLogFileMode = 0644;
constexpr mode_t kLogDirMode = 0755;
constexpr int32_t kReopenPeriodSec = 1;  // a lost file is sought at most this often

// The last header written to a file, for every file opened later. Always taken
// inside the logger lock, never the other way round.
Mutex g_headerLineLock;
char g_currentHeaderLine[LoggerFileTarget::kHeaderLineSize];
size_t g_currentHeaderLength = 0;

void StoreHeader(const char* text, size_t length) {
  MutexLock lock(g_headerLineLock);
  if (length >= sizeof(g_currentHeaderLine)) length = sizeof(g_currentHeaderLine) - 1;
  std::memcpy(g_currentHeaderLine, text, length);
  g_currentHeaderLine[length] = '\0';
  g_currentHeaderLength = length;
}

// False when no header has been stored yet.
bool CopyStoredHeader(char* buffer, size_t* length) {
  MutexLock lock(g_headerLineLock);
  if (g_currentHeaderLength == 0) return false;
  std::memcpy(buffer, g_currentHeaderLine, g_currentHeaderLength + 1);
  *length = g_currentHeaderLength;
  return true;
}

// The size the file has on disk, creating it (empty, mode 0644) when missing;
// false when it cannot be created.
bool SizeOnDiskCreatingIfMissing(const char* path, uint32_t* size) {
  struct stat st {};
  if (stat(path, &st) == 0) {
    *size = static_cast<uint32_t>(st.st_size);
    return true;
  }
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kLogFileMode);
  if (fd < 0) return false;
  close(fd);
  *size = 0;
  return true;
}

}  // namespace

std::unique_ptr<LoggerFileTarget> LoggerFileTarget::Create(const LoggerConfig* fileConfig) {
  if (fileConfig == nullptr || fileConfig->GetType() != LoggerConfig::kFile ||
      fileConfig->GetNumFiles() == 0) {
    return nullptr;
  }
  std::unique_ptr<LoggerFileTarget> target(new (std::nothrow) LoggerFileTarget());
  if (!target) return nullptr;
  target->directory_ = DuplicateString(fileConfig->GetDirectory());
  target->prefix_ = DuplicateString(fileConfig->GetPrefix());
  if (!target->directory_ || !target->prefix_) return nullptr;
  target->numFiles_ = fileConfig->GetNumFiles();
  target->maxFileSize_ = fileConfig->GetMaxFileSize();
  target->pid_ = fileConfig->GetPid();
  return target;
}

void LoggerFileTarget::CloseCurrentFile() {
  if (!writer_) return;
  writer_->Write(LoggerUtils::kLogFileEndMarker, LoggerUtils::kLogFileEndMarkerLength,
                 FileWriter::kWriteAndClose);
  writer_.reset();
}

// Out of line: its buffers would otherwise sit in the frame of every Write,
// on the deepest path the stack takes.
__attribute__((noinline)) bool LoggerFileTarget::OpenCurrentFile() {
  CloseCurrentFile();
  if (!LoggerUtils::GenerateLogFileName(path_.data(), path_.size(), directory_.get(), prefix_.get(),
                                        pid_, GetGeneration(), fileIndex_)) {
    return false;
  }
  uint32_t sizeOnDisk = 0;
  if (!SizeOnDiskCreatingIfMissing(path_.data(), &sizeOnDisk)) return false;
  writer_ = CreateFileWriter(path_.data(), kWriterBufferSize);
  if (!writer_) return false;
  currentSize_ = sizeOnDisk;
  char header[kHeaderLineSize];
  size_t headerLength = 0;
  if (!CopyStoredHeader(header, &headerLength)) return true;
  return WriteHeaderAtStart(header, headerLength);
}

// The writer opens with truncation on its first access, so the first header of
// a newly opened file empties it.
bool LoggerFileTarget::WriteHeaderAtStart(const char* text, size_t length) {
  if (text == nullptr || length == 0) return false;
  if (!IsEnabled()) return true;
  if (!writer_ || writer_->Seek(0) != 0) return false;
  if (writer_->Write(text, length, FileWriter::kWriteAndFlush) != length) return false;
  return writer_->Seek(-1) == 0;
}

bool LoggerFileTarget::WriteHeader(const char* text, size_t length) {
  if (!WriteHeaderAtStart(text, length)) return false;
  if (IsEnabled()) StoreHeader(text, length);
  return true;
}

// A log directory removed under the watchdog must not silence it for good:
// the lines would go on into an unlinked file, or nowhere.
void LoggerFileTarget::ReopenIfLost() {
  struct stat st {};
  if (!writer_ || stat(path_.data(), &st) != 0) Reopen();
}

// Out of line, as OpenCurrentFile is: kept off the stack of every Write.
__attribute__((noinline)) void LoggerFileTarget::Reopen() {
  const int32_t now = GetCurrentTimeInSec();
  if (now < nextReopenSec_) return;
  nextReopenSec_ = now + kReopenPeriodSec;
  MakeDirectories(directory_.get(), kLogDirMode);
  OpenCurrentFile();
}

bool LoggerFileTarget::Write(const char* text, size_t length) {
  if (text == nullptr || length == 0 || !IsEnabled()) return false;
  ReopenIfLost();
  if (!writer_) return false;
  const size_t written = writer_->Write(text, length, FileWriter::kWriteAndFlush);
  if (written < 1) return false;
  currentSize_ += static_cast<uint32_t>(written);
  if (currentSize_ >= maxFileSize_) {
    fileIndex_ = (fileIndex_ + 1) % numFiles_;
    OpenCurrentFile();
  }
  return true;
}

bool LoggerFileTarget::SetGeneration(uint32_t generation) {
  if (generation == GetGeneration()) return false;
  StoreGeneration(generation);
  fileIndex_ = 0;
  return OpenCurrentFile();
}

void LoggerFileTarget::Enable() {
  if (OpenCurrentFile()) LoggerBaseTarget::Enable();
}

void LoggerFileTarget::Disable() {
  LoggerBaseTarget::Disable();
  CloseCurrentFile();
}
