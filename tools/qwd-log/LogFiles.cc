#include "tools/qwd-log/LogFiles.h"

#include "common/LogFormat.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>

namespace {

// Reads the decimal number that ends text at *end (exclusive), moving *end
// to its first digit; false when there is none.
bool NumberBefore(std::string_view text, size_t* end, int64_t* out) {
  size_t start = *end;
  while (start > 0 && std::isdigit(static_cast<unsigned char>(text[start - 1])) &&
         *end - start < 18) {
    --start;
  }
  if (start == *end) return false;
  *out = std::strtoll(std::string(text.substr(start, *end - start)).c_str(), nullptr, 10);
  *end = start;
  return true;
}

struct Entry {
  std::string path;
  LogFileName name;
  timespec modified{};
};

bool WrittenBefore(const Entry& a, const Entry& b) {
  if (a.name.prefix != b.name.prefix) return a.name.prefix < b.name.prefix;
  if (a.modified.tv_sec != b.modified.tv_sec) return a.modified.tv_sec < b.modified.tv_sec;
  if (a.modified.tv_nsec != b.modified.tv_nsec) return a.modified.tv_nsec < b.modified.tv_nsec;
  if (a.name.generation != b.name.generation) return a.name.generation < b.name.generation;
  return a.name.index < b.name.index;
}

void AddFile(const std::string& path, bool named, std::vector<Entry>* entries) {
  Entry entry{path, {}, {}};
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return;
  if (!ParseLogFileName(path, &entry.name)) {
    if (!named) return;
    entry.name.prefix = path.substr(path.rfind('/') + 1);
  }
  entry.modified = info.st_mtim;
  entries->push_back(entry);
}

}  // namespace

bool ParseLogFileName(std::string_view path, LogFileName* out) {
  const std::string_view name = path.substr(path.rfind('/') + 1);
  size_t end = name.size();
  LogFileName parsed;
  if (name.size() > LogFormat::kCrashDumpSuffix.size() &&
      name.ends_with(LogFormat::kCrashDumpSuffix)) {
    end -= LogFormat::kCrashDumpSuffix.size();
    if (!NumberBefore(name, &end, &parsed.pid)) return false;
  } else {
    if (!NumberBefore(name, &end, &parsed.index) || end == 0 || name[--end] != '.' ||
        !NumberBefore(name, &end, &parsed.generation) || end == 0 || name[--end] != '_' ||
        !NumberBefore(name, &end, &parsed.pid)) {
      return false;
    }
  }
  if (end < 2 || name[end - 1] != '_') return false;
  parsed.prefix = std::string(name.substr(0, end - 1));
  *out = parsed;
  return true;
}

std::vector<std::string> ListLogFiles(const std::vector<std::string>& args) {
  std::vector<Entry> entries;
  for (const std::string& arg : args) {
    DIR* dir = opendir(arg.c_str());
    if (dir == nullptr) {
      AddFile(arg, true, &entries);
      continue;
    }
    while (const dirent* entry = readdir(dir)) {
      AddFile(arg + "/" + entry->d_name, false, &entries);
    }
    closedir(dir);
  }
  std::stable_sort(entries.begin(), entries.end(), WrittenBefore);
  std::vector<std::string> paths;
  for (const Entry& entry : entries) paths.push_back(entry.path);
  return paths;
}

LogTail::Cursor& LogTail::CursorFor(const std::string& path) {
  for (Cursor& cursor : cursors_) {
    if (cursor.path == path) return cursor;
  }
  cursors_.emplace_back();
  cursors_.back().path = path;
  return cursors_.back();
}

void LogTail::Read(const std::vector<std::string>& paths, bool final, const LineFn& lineFn) {
  for (const std::string& path : paths) ReadFile(CursorFor(path), final, lineFn);
}

void LogTail::ReadFile(Cursor& cursor, bool final, const LineFn& lineFn) {
  const int fd = open(cursor.path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  struct stat info {};
  if (fstat(fd, &info) == 0 && (info.st_dev != cursor.device || info.st_ino != cursor.inode ||
                                info.st_size < cursor.offset)) {
    // Reused, truncated or replaced: its content starts again.
    cursor.device = info.st_dev;
    cursor.inode = info.st_ino;
    cursor.offset = 0;
    cursor.partial.clear();
  }
  char buffer[8192];
  ssize_t got = 0;
  while ((got = pread(fd, buffer, sizeof(buffer), cursor.offset)) > 0) {
    cursor.offset += got;
    cursor.partial.append(buffer, static_cast<size_t>(got));
  }
  close(fd);
  size_t start = 0;
  for (size_t newline; (newline = cursor.partial.find('\n', start)) != std::string::npos;
       start = newline + 1) {
    lineFn(std::string_view(cursor.partial).substr(start, newline - start), cursor.path);
  }
  cursor.partial.erase(0, start);
  if (final && !cursor.partial.empty()) {
    lineFn(cursor.partial, cursor.path);
    cursor.partial.clear();
  }
}
