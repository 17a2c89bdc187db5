#include "watchdog/Installation.h"

#include <dirent.h>
#include <libgen.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/FileUtils.h"
#include "common/Log.h"
#include "common/RootFiles.h"
#include "common/StringUtils.h"
#include "common/io/DirWalk.h"
#include "watchdog/Config.h"
#include "watchdog/StartupReport.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_WATCHDOG;

// The directory handle of one walk, closed on every way out.
using OpenDir = DirWalk;

struct ProgramLink {
  const char* fileName;  // in the version directory
  ConfigKey linkPath;    // where the link goes
};
constexpr ProgramLink kProgramLinks[] = {
    {"quillmorUserAgent", CFG_AGENT_SYM_LINK_PATH},
    {"quillmorSystemExec", CFG_SYSTEM_EXEC_SYM_LINK_PATH},
    {"quillmorKernelAgent", CFG_MODULE_SYM_LINK_PATH},
    {"quillmor_control.sh", CFG_CONTROL_SCRIPT_PATH},
    {"quillmor_teardown.sh", CFG_TEARDOWN_SCRIPT_PATH},
};

constexpr const char* kExecutables[] = {"quillmorUserAgent",   "quillmorSystemExec",
                                        "quillmorKernelAgent", "cleanup.sh",
                                        "quillmor_control.sh", "quillmor_teardown.sh"};

}  // namespace

StatusCode CreateSymLink(const char* directory, const char* fileName, const char* linkPath) {
  if (symlink_exists(linkPath)) std::remove(linkPath);
  char target[Installation::kPathSize];
  std::snprintf(target, sizeof(target), "%s/%s", directory, fileName);
  if (symlink(target, linkPath) != 0) {
    const char* error = std::strerror(errno);
    QWD_LOG_ERROR(kComponent, "Failed creating symlink from '%s' to '%s', errno %s\n", linkPath,
                  target, error);
    StartupReport::Say("cannot link '%s' to '%s': %s", linkPath, target, error);
    return StatusCode::FAILURE;
  }
  return StatusCode::SUCCESS;
}

namespace Installation {

bool HasVersionDirectory(const char* version) {
  return version[0] != '\0' && std::strcmp(version, "N/A") != 0 &&
         std::strcmp(version, "undefined") != 0;
}

bool GetVersionDirectory(const char* version, char (&dir)[kPathSize]) {
  if (!HasVersionDirectory(version)) return false;
  std::snprintf(dir, sizeof(dir), "%s/%s", Config::GetStrValue(CFG_DOWNLOAD_DIR), version);
  QWD_LOG_INFO(kComponent, "Version directory '%s'\n", dir);
  return true;
}

bool CreateProgramLinks(const char* versionDir) {
  for (const ProgramLink& link : kProgramLinks) {
    if (CreateSymLink(versionDir, link.fileName, Config::GetStrValue(link.linkPath)) !=
        StatusCode::SUCCESS) {
      return false;
    }
  }
  return true;
}

bool CreateSharedLibLinks(const char* versionDir) {
  OpenDir dir(versionDir);
  if (!dir.IsOpen()) {
    StartupReport::Say("cannot open version directory '%s': %s", versionDir, std::strerror(errno));
    QWD_LOG_ERROR(kComponent, "Can't open '%s'\n", versionDir);
    return false;
  }
  const char* libPath = Config::GetStrValue(CFG_LIB_PATH);
  for (const dirent* entry; (entry = dir.Next()) != nullptr;) {
    if (std::strstr(entry->d_name, ".so") == nullptr) continue;
    char source[kPathSize];
    char link[kPathSize];
    // The warning fires when the text fitted: its test has always been the
    // inverse of its message, and the log keeps both lines per library.
    if (std::snprintf(source, sizeof(source), "%s/%s", versionDir, entry->d_name) <
        static_cast<int>(sizeof(source))) {
      QWD_LOG_WARN(kComponent, "snprintf failed!\n");
    }
    if (std::snprintf(link, sizeof(link), "%s/%s", libPath, entry->d_name) <
        static_cast<int>(sizeof(link))) {
      QWD_LOG_WARN(kComponent, "snprintf failed!\n");
    }
    if (symlink_exists(link)) std::remove(link);
    if (symlink(source, link) != 0) {
      StartupReport::Say("cannot link '%s' to '%s': %s", link, source, std::strerror(errno));
      QWD_LOG_ERROR(kComponent, "Failed creating symlink from '%s' to '%s'\n", link, source);
      return false;
    }
    QWD_LOG_INFO(kComponent, "Created a symbolic link  '%s' -> '%s'\n", link, source);
  }
  return true;
}

void SetExecModes(const char* version) {
  const char* downloadDir = Config::GetStrValue(CFG_DOWNLOAD_DIR);
  for (const char* name : kExecutables) {
    char path[kPathSize];
    std::snprintf(path, sizeof(path), "%s/%s/%s", downloadDir, version, name);
    struct stat info {};
    stat(path, &info);
    if ((info.st_mode & 0111) == 0111) continue;
    if (FileChangeMode(path, 0111) != StatusCode::SUCCESS) {
      QWD_LOG_WARN(kComponent, "Failed chmod '%s'\n", path);
    }
  }
}

void RemovePreviousVersions(const char* version) {
  const char* downloadDir = Config::GetStrValue(CFG_DOWNLOAD_DIR);
  OpenDir dir(downloadDir);
  if (!dir.IsOpen()) {
    QWD_LOG_ERROR(kComponent, "Failed opening download dir '%s'\n", downloadDir);
    return;
  }
  for (const dirent* entry; (entry = dir.Next()) != nullptr;) {
    const char* name = entry->d_name;
    if (entry->d_type != DT_DIR || std::isdigit(static_cast<unsigned char>(name[0])) == 0 ||
        std::strcmp(name, version) == 0) {
      continue;
    }
    QWD_LOG_INFO(kComponent, "Found previous version dir '%s', removing it\n", name);
    // Removed in-process and without following links: no shell ever parses
    // the path, so a blank in downloadDir cannot make it reach a sibling tree.
    char path[kPathSize];
    const bool fits = std::snprintf(path, sizeof(path), "%s/%s", downloadDir, name) <
                      static_cast<int>(sizeof(path));
    if (!fits) QWD_LOG_WARN(kComponent, "snprintf warning - removeCmd buffer is too small");
    if (!fits || !RemoveTree(path)) {
      QWD_LOG_ERROR(kComponent, "Failed removing prev version '%s'\n", name);
    }
  }
}

void SplitPath(const char* path, std::array<char, kDirNameSize>& dir,
               std::array<char, kBaseNameSize>& base) {
  // dirname and basename may write into their argument: each gets a copy.
  char forDir[321];
  char forBase[321];
  SafeStrCopy(forDir, sizeof(forDir), path);
  SafeStrCopy(forBase, sizeof(forBase), path);
  SafeStrCopy(dir, dirname(forDir));
  SafeStrCopy(base, basename(forBase));
}

bool ShellCommandFailed(int result) {
  return result == -1 || (WIFEXITED(result) && WEXITSTATUS(result) == 127);
}

}  // namespace Installation
