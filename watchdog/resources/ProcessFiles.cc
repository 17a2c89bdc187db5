#include "watchdog/resources/ProcessFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "common/ProcRoot.h"
#include "watchdog/resources/SysResourcesMonitoring.h"

namespace SysResMon {

namespace {

struct FileKind {
  const char* name;  // under <root>/<pid>
  int flags;         // how it is opened
};
// By File. The fd directory is only ever stat'ed.
constexpr FileKind kFileKinds[] = {
    {"cmdline", O_RDONLY},
    {"statm", O_RDONLY},
    {"fd", O_PATH | O_DIRECTORY},
};
constexpr size_t kPathSize = 512;

}  // namespace

void ProcessFiles::Open(int32_t pid) {
  for (HeldProcFile& file : files_) file.Close();
  pid_ = pid > 0 ? pid : -1;
  for (size_t file = 0; pid_ > 0 && file < kFileCount; ++file) {
    Descriptor(static_cast<File>(file));
  }
}

int ProcessFiles::Descriptor(File file) {
  HeldProcFile& held = files_[file];
  if (pid_ < 1) {
    errno = ESRCH;
    return -1;
  }
  if (!held.IsOpen()) {
    char path[kPathSize];
    Path(file, path, sizeof(path));
    held.Open(path, kFileKinds[file].flags);
  }
  return held.Descriptor();
}

void ProcessFiles::Path(File file, char* path, size_t size) const {
  std::snprintf(path, size, "%s/%d/%s", GetProcRoot(), pid_, kFileKinds[file].name);
}

ssize_t ProcessFiles::Read(File file, char* buffer, size_t size) {
  const int fd = Descriptor(file);
  const ssize_t got = fd >= 0 ? pread(fd, buffer, size - 1, 0) : -1;
  buffer[got > 0 ? got : 0] = '\0';
  return got;
}

bool ProcessFiles::ReadRssKb(int32_t* rssKb) {
  // "size resident shared text lib data dirty", in pages.
  char text[128];
  if (Read(kStatm, text, sizeof(text)) <= 0) return false;
  char* end = nullptr;
  std::strtoul(text, &end, 10);
  const char* resident = end;
  const unsigned long pages = std::strtoul(resident, &end, 10);
  if (end == resident) return false;
  static const int64_t pageKb = sysconf(_SC_PAGESIZE) / 1024;
  *rssKb = static_cast<int32_t>(std::min<int64_t>(static_cast<int64_t>(pages) * pageKb, INT32_MAX));
  return true;
}

StatusCode ProcessFiles::CountOpenFds(int32_t* count) {
  return GetNumOpenFileDescriptors(count, pid_, Descriptor(kFdDir));
}

}  // namespace SysResMon
