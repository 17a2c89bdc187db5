#include "agent/src/infra/utils/SysResourcesMonitoring.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "agent/src/infra/io/FileReader.h"
#include "agent/src/infra/utils/ProcDir.h"
#include "common/Log.h"
#include "common/ProcRoot.h"
#include "common/StringUtils.h"

namespace SysResMon {

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_INFRA_UTILS;
constexpr int32_t kLineSize = 512;
constexpr size_t kPathSize = 512;
constexpr size_t kWordSize = 100;  // the parse formats below read at most 99 characters

struct MeminfoField {
  const char* name;
  uint32_t MemoryInfo::*field;
};
constexpr MeminfoField kMeminfoFields[] = {
    {"MemTotal", &MemoryInfo::totalKb},         {"MemFree", &MemoryInfo::freeKb},
    {"MemAvailable", &MemoryInfo::availableKb}, {"Buffers", &MemoryInfo::buffersKb},
    {"Cached", &MemoryInfo::cachedKb},
};

// A key of the status file and the field it fills: text (first word) or number.
struct StatusKey {
  const char* key;
  std::array<char, kProcNameSize> ProcessStatus::*text;
  int32_t ProcessStatus::*number;
};
constexpr StatusKey kStatusKeys[] = {
    {"Name:", &ProcessStatus::name, nullptr},     {"State:", &ProcessStatus::state, nullptr},
    {"VmRSS:", nullptr, &ProcessStatus::vmRssKb}, {"VmHWM:", nullptr, &ProcessStatus::vmHwmKb},
    {"PPid:", nullptr, &ProcessStatus::ppid},     {"Threads:", nullptr, &ProcessStatus::threads},
    {"FDSize:", nullptr, &ProcessStatus::fdSize},
};
constexpr char kBlanks[] = " \t\n\v\f\r";  // what "%s" stops at

// The reader opens lazily; opening here tells a process that has gone (an
// expected race with /proc, logged at DEBUG when mayVanish) from a file that
// really fails.
std::unique_ptr<FileReader> OpenLineReader(const char* path, bool mayVanish) {
  std::unique_ptr<FileReader> reader = CreateFileReader(path, 0);
  if (reader && reader->GetFd() >= 0) return reader;
  const bool gone = mayVanish && reader && (errno == ENOENT || errno == ESRCH);
  QWD_LOG(kComponent, gone ? LoggerLevel::DEBUG : LoggerLevel::ERROR,
          "Failed creating '%s' file reader object\n", path);
  return nullptr;
}

// Keys are whole first words of the line, values the next word, both cut at
// 99 characters. Most lines hold keys that are not wanted: the key is matched
// before the value is scanned, which keeps the watch-cycle check cheap.
void ParseStatusLine(const char* line, ProcessStatus& status) {
  const char* word = line + std::strspn(line, kBlanks);
  const size_t length = std::strcspn(word, kBlanks);
  for (const StatusKey& key : kStatusKeys) {
    if (std::strlen(key.key) != length || std::memcmp(word, key.key, length) != 0) continue;
    char value[kWordSize] = "";
    std::sscanf(word + length, "%99s", value);
    if (key.text != nullptr) {
      SafeStrCopy(status.*key.text, value);
    } else {
      status.*key.number = std::atoi(value);
    }
    return;
  }
}

}  // namespace

StatusCode ReadMeminfo(MemoryInfo& memoryInfo) {
  char path[kPathSize];
  std::snprintf(path, sizeof(path), "%s/meminfo", GetProcRoot());
  std::unique_ptr<FileReader> reader = OpenLineReader(path, false);
  if (!reader) return StatusCode::FAILURE;

  memoryInfo = MemoryInfo{};
  char line[kLineSize];
  while (reader->ReadLine(line, kLineSize) > 0) {
    char name[kWordSize] = "";
    int value = 0;
    if (std::sscanf(line, " %99[a-zA-Z0-9()_ ]:%d", name, &value) != 2) {
      QWD_LOG_ERROR(kComponent, "There's an issue with parsing %s\n", path);
      QWD_LOG_ERROR(kComponent, "Failed line: %s, results in param=%s, value=%d\n", line, name,
                    value);
      return StatusCode::FAILURE;
    }
    for (const MeminfoField& field : kMeminfoFields) {
      if (std::strcmp(name, field.name) == 0) {
        memoryInfo.*field.field = static_cast<uint32_t>(value);
        break;
      }
    }
  }
  // Older kernels have no MemAvailable; buffers are deliberately left out.
  if (memoryInfo.availableKb == 0) {
    memoryInfo.availableKb = memoryInfo.freeKb + memoryInfo.cachedKb;
  }
  return StatusCode::SUCCESS;
}

StatusCode ReadProcessStatus(ProcessStatus& status, int32_t pid) {
  if (pid < 1) {
    QWD_LOG_ERROR(kComponent, "PID can't be less than 1\n");
    return StatusCode::INVALID_PARAM;
  }
  char path[kPathSize];
  std::snprintf(path, sizeof(path), "%s/%d/status", GetProcRoot(), pid);
  std::unique_ptr<FileReader> reader = OpenLineReader(path, true);
  if (!reader) return StatusCode::FAILURE;

  status = ProcessStatus{};
  status.pid = pid;
  char line[kLineSize];
  while (reader->ReadLine(line, kLineSize) > 0) ParseStatusLine(line, status);
  return StatusCode::SUCCESS;
}

StatusCode CountFilesInDirectory(const char* dir, int32_t* filesNumber) {
  QWD_ASSERT(kComponent, dir != nullptr, "NULL != dir");
  QWD_ASSERT(kComponent, filesNumber != nullptr, "NULL != filesNumber");
  const int32_t entries = dir != nullptr ? CountDirEntries(dir) : -1;
  if (entries < 0) {
    QWD_LOG_ERROR(kComponent, "Can't open [%s] to get number of files\n",
                  dir != nullptr ? dir : "(null)");
    return StatusCode::FAILURE;
  }
  if (filesNumber != nullptr) *filesNumber = entries - 2;  // "." and ".."
  return StatusCode::SUCCESS;
}

StatusCode GetNumOpenFileDescriptors(int32_t* count, int32_t pid) {
  if (pid < 1) {
    QWD_LOG_ERROR(kComponent, "PID can't be less than 1\n");
    return StatusCode::INVALID_PARAM;
  }
  if (count == nullptr) {
    QWD_LOG_ERROR(kComponent, "num can't be NULL");
    return StatusCode::INVALID_PARAM;
  }
  char path[kPathSize];
  std::snprintf(path, sizeof(path), "%s/%d/fd", GetProcRoot(), pid);
  if (CountFilesInDirectory(path, count) != StatusCode::SUCCESS) {
    QWD_LOG_ERROR(kComponent, "Failed to count files in directory [%s] \n", path);
    return StatusCode::FAILURE;
  }
  return StatusCode::SUCCESS;
}

void CheckProcessResConsumption(const char* name, int32_t pid, int32_t memoryStepKb,
                                int32_t& highestRssKb, int32_t& highestFds) {
  ProcessStatus status;
  StatusCode ret = ReadProcessStatus(status, pid);
  if (ret != StatusCode::SUCCESS) {
    QWD_LOG_ERROR(kComponent, "Can't read process status for PID %d, ret %d\n", pid,
                  StatusCodeToInt(ret));
    return;
  }
  const char* shownName = name != nullptr ? name : status.name.data();

  // 64-bit sum: a highest value near the top of the range must not wrap.
  if (static_cast<int64_t>(status.vmRssKb) >= static_cast<int64_t>(highestRssKb) + memoryStepKb) {
    highestRssKb = status.vmRssKb;
    QWD_LOG_INFO(kComponent,
                 "MEM MAX: Process %s, PID %d is using %d Kb VM RSS, %d Kb VM HW, %d FD buff "
                 "size\n",
                 shownName, pid, status.vmRssKb, status.vmHwmKb, status.fdSize);
  }

  int32_t fds = 0;
  ret = GetNumOpenFileDescriptors(&fds, pid);
  if (ret != StatusCode::SUCCESS) {
    QWD_LOG_ERROR(kComponent, "Can't get number of open file descriptors for PID %d, ret %d\n", pid,
                  StatusCodeToInt(ret));
    return;
  }
  if (fds > highestFds) {
    highestFds = fds;
    QWD_LOG_INFO(kComponent, "FD MAX: Process %s, PID %d has %d open file descriptors\n", shownName,
                 pid, fds);
  }
}

}  // namespace SysResMon
