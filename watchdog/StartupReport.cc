#include "watchdog/StartupReport.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <initializer_list>

namespace StartupReport {

void Say(const char* format, ...) {
  char text[768];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  // Standard output goes first: the two streams often share one terminal.
  std::fflush(stdout);
  std::fprintf(stderr, "quillmorWD: %s\n", text);
}

void CheckConfigFile(const char* path) {
  struct stat info {};
  if (stat(path, &info) != 0) {
    Say("notice: configuration file '%s': %s; running on the defaults", path, std::strerror(errno));
    return;
  }
  if (S_ISDIR(info.st_mode)) {
    Say("notice: configuration file '%s' is a directory; running on the defaults", path);
    return;
  }
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    Say("notice: configuration file '%s' cannot be read: %s; running on the defaults", path,
        std::strerror(errno));
    return;
  }
  close(fd);
}

void CheckPrograms(const char* versionDir) {
  for (const char* name : {"quillmorSystemExec", "quillmorUserAgent"}) {
    char path[512];
    std::snprintf(path, sizeof(path), "%s/%s", versionDir, name);
    if (access(path, F_OK) != 0) Say("missing program '%s': %s", path, std::strerror(errno));
  }
}

}  // namespace StartupReport
