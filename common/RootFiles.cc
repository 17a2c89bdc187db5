#include "common/RootFiles.h"

#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr mode_t kFileMode = 0644;
constexpr int kMaxOpenDirs = 16;
constexpr size_t kPathSize = 512;

int RemoveOne(const char* path, const struct stat*, int type, FTW*) {
  // Depth first: a directory comes after its entries, so it is empty by now.
  const int result = type == FTW_DP ? rmdir(path) : unlink(path);
  return result == 0 || errno == ENOENT ? 0 : -1;
}

}  // namespace

bool RemoveTree(const char* path) {
  struct stat st {};
  if (lstat(path, &st) != 0) return errno == ENOENT;
  if (!S_ISDIR(st.st_mode)) return unlink(path) == 0 || errno == ENOENT;
  return nftw(path, RemoveOne, kMaxOpenDirs, FTW_PHYS | FTW_DEPTH | FTW_MOUNT) == 0;
}

int OpenRegularFileForWriting(const char* path) {
  struct stat st {};
  if (lstat(path, &st) == 0 && !S_ISREG(st.st_mode) && !RemoveTree(path)) return -1;
  // O_NONBLOCK: a fifo planted after the check fails the open instead of
  // blocking it.
  const int fd =
      open(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, kFileMode);
  if (fd < 0) return -1;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || fchmod(fd, kFileMode) != 0) {
    close(fd);
    errno = EINVAL;
    return -1;
  }
  return fd;
}

bool ReplaceFileAtomically(const char* path, const char* text) {
  char temporary[kPathSize];
  if (std::snprintf(temporary, sizeof(temporary), "%s.XXXXXX", path) >=
      static_cast<int>(sizeof(temporary))) {
    return false;
  }
  const int fd = mkostemp(temporary, O_CLOEXEC);
  if (fd < 0) return false;
  const size_t length = std::strlen(text);
  const bool written =
      write(fd, text, length) == static_cast<ssize_t>(length) && fchmod(fd, kFileMode) == 0;
  close(fd);
  // rename replaces a link or a file at the path; only a directory must go first.
  if (!written ||
      (rename(temporary, path) != 0 && (!RemoveTree(path) || rename(temporary, path) != 0))) {
    unlink(temporary);
    return false;
  }
  return true;
}

bool MakeDirectories(const char* path, mode_t mode) {
  char partial[kPathSize];
  if (path[0] == '\0' ||
      std::snprintf(partial, sizeof(partial), "%s", path) >= static_cast<int>(sizeof(partial))) {
    return false;
  }
  for (char* slash = std::strchr(partial + 1, '/');; slash = std::strchr(slash + 1, '/')) {
    if (slash != nullptr) *slash = '\0';
    if (mkdir(partial, mode) != 0 && errno != EEXIST) return false;
    if (slash == nullptr) break;
    *slash = '/';
  }
  struct stat st {};
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}
