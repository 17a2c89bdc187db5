#include "common/io/DirReader.h"

#include <sys/stat.h>

#include <cstring>
#include <new>

#include "common/Log.h"
#include "common/StringUtils.h"

namespace {
constexpr uint32_t kComponent = LOGGER_COMPONENT_INFRA_IO;
}  // namespace

std::unique_ptr<DirReader> CreateDirReader(const char* path) {
  if (path == nullptr) {
    QWD_LOG_ERROR(kComponent, "Can't create DirReader object - path can't be NULL\n");
    return nullptr;
  }
  std::unique_ptr<DirReader> reader(new (std::nothrow) DirReader());
  if (!reader) {
    QWD_LOG_ERROR(kComponent, "Can't allocate DirReader object\n");
    return nullptr;
  }
  if (!reader->DirReaderCtor(path)) {
    QWD_LOG_ERROR(kComponent, "DirReader ctor failed\n");
    return nullptr;
  }
  return reader;
}

bool DirReader::DirReaderCtor(const char* path) {
  dir_ = opendir(path);
  if (dir_ == nullptr) {
    QWD_LOG_ERROR(kComponent, "Can't open %s - not a directory or doesn't exist\n", path);
    return false;
  }
  ClearEntry();
  SafeStrCopy(dirPath_, path);
  return true;
}

DirReader::~DirReader() {
  if (dir_ != nullptr) closedir(dir_);
}

void DirReader::ClearEntry() {
  entryName_[0] = '\0';
  entryFullPath_[0] = '\0';
  entryType_ = kNone;
}

DirReader* DirReader::NextEntry() {
  const dirent* entry;
  do {
    entry = readdir(dir_);
    if (entry == nullptr) {
      ClearEntry();
      return nullptr;
    }
  } while (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0);

  ClearEntry();
  SafeStrCopy(entryFullPath_, dirPath_.data());
  SafeStrCat(entryFullPath_, "/");
  SafeStrCat(entryFullPath_, entry->d_name);

  struct stat st {};
  if (stat(entryFullPath_.data(), &st) != 0) {
    QWD_LOG_WARN(kComponent, "Can't read %s\n", entryFullPath_.data());
    entryFullPath_[0] = '\0';
    return nullptr;
  }
  SafeStrCopy(entryName_, entry->d_name);
  if (S_ISDIR(st.st_mode)) {
    entryType_ = kDirectory;
  } else if (S_ISREG(st.st_mode)) {
    entryType_ = kRegularFile;
  } else {
    entryType_ = kOther;
  }
  return this;
}

DirReader::EntryType DirReader::GetEntryType() const { return entryType_; }
const char* DirReader::GetEntryName() const { return entryName_.data(); }
const char* DirReader::GetEntryFullPath() const { return entryFullPath_.data(); }
