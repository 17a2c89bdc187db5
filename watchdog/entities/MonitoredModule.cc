#include "watchdog/entities/MonitoredModule.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "common/Clock.h"
#include "common/Log.h"
#include "common/StringUtils.h"
#include "common/io/FileReader.h"
#include "watchdog/Config.h"
#include "watchdog/entities/KernelModuleApi.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_WATCHDOG;
constexpr int kMaxUnloadCalls = 11;
constexpr int32_t kModulesLineSize = 1024;

// A reader is only of use once its file is open: it opens lazily, so opening
// here is what tells a missing file from an empty one.
std::unique_ptr<FileReader> OpenReader(const char* path) {
  auto reader = CreateFileReader(path, 1);
  if (reader && reader->GetFd() < 0) reader.reset();
  return reader;
}

}  // namespace

std::unique_ptr<MonitoredModule> CreateMonitoredModule(const char* dirPath, const char* binaryName,
                                                       const char* moduleName, const char* args) {
  // Refused before anything exists, so that no destruction line follows.
  if (dirPath == nullptr || binaryName == nullptr || moduleName == nullptr) {
    QWD_LOG_ERROR(kComponent,
                  "Can't create monitored module with NULL path (%p), binary (%p) or name (%p)",
                  static_cast<const void*>(dirPath), static_cast<const void*>(binaryName),
                  static_cast<const void*>(moduleName));
    return nullptr;
  }
  std::unique_ptr<MonitoredModule> module(new (std::nothrow) MonitoredModule());
  if (!module) {
    QWD_LOG_ERROR(kComponent, "Can't allocate memory for monitored module '%s'\n", binaryName);
    return nullptr;
  }
  module->MonitoredModuleCtor(dirPath, binaryName, moduleName, args);
  return module;
}

void MonitoredModule::MonitoredModuleCtor(const char* dirPath, const char* binaryName,
                                          const char* moduleName, const char* args) {
  SafeStrCopy(dirPath_, dirPath);
  SafeStrCopy(binaryName_, binaryName);
  SafeStrCopy(moduleName_, moduleName);
  SafeStrCopy(args_, args != nullptr ? args : "");
  QWD_LOG_VERBOSE(kComponent,
                  "Created Monitored module object for module '%s' at '%s' with args '%s'\n",
                  binaryName_.data(), dirPath_.data(), args_.data());
}

MonitoredModule::~MonitoredModule() {
  QWD_LOG_VERBOSE(kComponent, "Destroying Monitored module object '%s'\n", moduleName_.data());
}

const char* MonitoredModule::GetName() { return moduleName_.data(); }

StatusCode MonitoredModule::IsModuleLoaded(bool* loaded) {
  if (!QWD_ASSERT(kComponent, loaded != nullptr, "NULL != isLoaded")) return StatusCode::FAILURE;
  const char* path = GetKernelModuleApi().ModulesListPath();
  // Opened on the first read: a kernel without the list (no module support)
  // reads as empty, so the module counts as not loaded instead of leaving
  // its stop to ten seconds of retries and a critical error.
  auto reader = CreateFileReader(path, 1);
  if (!reader) {
    QWD_LOG_ERROR(kComponent, "Can't create file reader, path %s\n", path);
    return StatusCode::FAILURE;
  }
  *loaded = false;
  // A line longer than the buffer is read in pieces, each tested on its own.
  char line[kModulesLineSize];
  while (reader->ReadLine(line, sizeof(line)) > 0) {
    if (std::strstr(line, moduleName_.data()) != nullptr) {
      *loaded = true;
      break;
    }
  }
  return StatusCode::SUCCESS;
}

StatusCode MonitoredModule::Start() {
  char path[321];
  std::snprintf(path, sizeof(path), "%s/%s", dirPath_.data(), binaryName_.data());
  auto reader = OpenReader(path);
  if (!reader) {
    QWD_LOG_ERROR(kComponent, "Can't create file reader\n");
    return StatusCode::FAILURE;
  }
  struct stat st {};
  if (fstat(reader->GetFd(), &st) != 0) {
    QWD_LOG_ERROR(kComponent, "Fstat failed! error %d (%s)\n", errno, std::strerror(errno));
    return StatusCode::FAILURE;
  }
  const size_t size = static_cast<size_t>(st.st_size);
  std::unique_ptr<char[]> image(new (std::nothrow) char[size]);
  if (!image) {
    QWD_LOG_ERROR(kComponent, "Failed allocating image for module loading\n");
    return StatusCode::FAILURE;
  }
  // A short read is left for the kernel to refuse.
  reader->Read(image.get(), size);
  reader.reset();

  if (GetKernelModuleApi().InitModule(image.get(), size, args_.data()) != 0) {
    QWD_LOG_ERROR(kComponent, "Module loading failed! error %d (%s)\n", errno,
                  std::strerror(errno));
    SetStatus(MonitoredEntityStatus::UNKNOWN);
    return StatusCode::FAILURE;
  }
  image.reset();
  SleepSec(1);
  CheckStatus();
  if (GetStatus() != MonitoredEntityStatus::RUNNING) return StatusCode::FAILURE;
  QWD_LOG_VERBOSE(kComponent, "started module binary '%s' successfully\n", binaryName_.data());
  return StatusCode::SUCCESS;
}

void MonitoredModule::CheckStatus() {
  if (GetStatus() == MonitoredEntityStatus::RESTART) return;
  const int32_t retries = Config::GetIntValue(CFG_PROC_MODULES_RETRIES);
  for (int32_t attempt = 0; attempt < retries; ++attempt) {
    bool loaded = false;
    if (IsModuleLoaded(&loaded) != StatusCode::SUCCESS) {
      QWD_LOG_ERROR(kComponent, "IsModuleLoaded failed! try %d of %d \n", attempt, retries);
      continue;
    }
    if (loaded) {
      QWD_LOG_DEBUG(kComponent, "Module '%s' was verified!\n", moduleName_.data());
      SetStatus(MonitoredEntityStatus::RUNNING);
    } else {
      QWD_LOG_ERROR(kComponent, "Module '%s' is not loaded\n", moduleName_.data());
      SetStatus(MonitoredEntityStatus::FAILED);
    }
    return;
  }
  QWD_LOG_ERROR(kComponent, "Failed to check status of '%s' module\n", moduleName_.data());
  SetStatus(MonitoredEntityStatus::UNKNOWN);
}

StatusCode MonitoredModule::Stop() {
  for (int call = 1;; ++call) {
    if (GetKernelModuleApi().DeleteModule(moduleName_.data(), O_NONBLOCK) == 0) break;
    QWD_LOG_INFO(kComponent, "Failed to unload module, error %d (%s)\n", errno,
                 std::strerror(errno));
    SetStatus(MonitoredEntityStatus::UNKNOWN);
    if (call == kMaxUnloadCalls) {
      // The count printed is of retries, one less than the calls made.
      QWD_LOG_ERROR(kComponent,
                    "Failed to unload the module - max tries exceeded %d, for module '%s'\n",
                    kMaxUnloadCalls - 1, moduleName_.data());
      return StatusCode::FAILURE;
    }
    bool loaded = true;
    if (IsModuleLoaded(&loaded) == StatusCode::SUCCESS && !loaded) break;
    SleepSec(1);
  }
  QWD_LOG_VERBOSE(kComponent, "Unload module '%s'\n", moduleName_.data());
  SetStatus(MonitoredEntityStatus::NOT_RUNNING);
  return StatusCode::SUCCESS;
}
