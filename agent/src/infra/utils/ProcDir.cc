#include "agent/src/infra/utils/ProcDir.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cctype>

namespace SysResMon {

ProcDir::ProcDir(const char* path) : dir_(opendir(path)) {}

ProcDir::~ProcDir() {
  if (dir_ != nullptr) closedir(dir_);
}

const dirent* ProcDir::Next() { return dir_ != nullptr ? readdir(dir_) : nullptr; }

bool ProcDir::IsProcessEntry(const dirent* entry) const {
  if (!std::isdigit(static_cast<unsigned char>(entry->d_name[0]))) return false;
  if (entry->d_type != DT_UNKNOWN) return entry->d_type == DT_DIR;
  // Only file systems that do not type their entries cost a stat.
  struct stat st {};
  return fstatat(dirfd(dir_), entry->d_name, &st, 0) == 0 && S_ISDIR(st.st_mode);
}

int32_t CountDirEntries(const char* path) {
  ProcDir dir(path);
  if (!dir.IsOpen()) return -1;
  int32_t count = 0;
  while (dir.Next() != nullptr) ++count;
  return count;
}

}  // namespace SysResMon
