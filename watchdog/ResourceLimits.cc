#include <sys/resource.h>

#include <cstdio>
#include <cstring>

#include "common/Log.h"
#include "watchdog/Installation.h"

namespace {

constexpr uint32_t kComponent = LOGGER_COMPONENT_WATCHDOG;
constexpr int kLimitsPerLine = 4;

// Texts held in place, not pointed to: the table then needs no relocation.
struct ResourceLimit {
  int resource;
  char name[11];
  rlim_t divisor;
  char unit[7];
};

// MSGQUEUE counts in thousands ("k") where the sizes count in kibibytes: the
// report has always read that way.
constexpr ResourceLimit kLimits[] = {
    {RLIMIT_AS, "AS", 1, ""},
    {RLIMIT_CORE, "CORE", 1, ""},
    {RLIMIT_CPU, "CPU", 1, ""},
    {RLIMIT_DATA, "DATA", 1024, "kb"},
    {RLIMIT_FSIZE, "FSIZE", 1, "blocks"},
    {RLIMIT_LOCKS, "LOCKS", 1, ""},
    {RLIMIT_MEMLOCK, "MEMLOCK", 1024, "kb"},
    {RLIMIT_MSGQUEUE, "MSGQUEUE", 1000, "k"},
    {RLIMIT_NICE, "NICE", 1, ""},
    {RLIMIT_NOFILE, "NOFILE", 1, ""},
    {RLIMIT_NPROC, "NPROC", 1, ""},
    {RLIMIT_RSS, "RSS", 1024, "kb"},
    {RLIMIT_RTPRIO, "RTPRIO", 1, ""},
    {RLIMIT_SIGPENDING, "SIGPENDING", 1, ""},
    {RLIMIT_STACK, "STACK", 1024, "kb"},
};
constexpr int kNumLimits = sizeof(kLimits) / sizeof(kLimits[0]);

// " NAME:first[unlim]unit". The hard limit overwrites the soft one in the
// first field and the bracket never changes: the report's long-standing form.
void AppendLimit(char* line, size_t size, const ResourceLimit& limit) {
  const size_t used = std::strlen(line);
  rlimit value{};
  if (getrlimit(limit.resource, &value) != 0) {
    std::snprintf(line + used, size - used, " %s:-", limit.name);
    return;
  }
  char first[24] = "unlim";
  const char bracket[] = "unlim";
  if (value.rlim_cur != RLIM_INFINITY) {
    std::snprintf(first, sizeof(first), "%lu",
                  static_cast<unsigned long>(value.rlim_cur / limit.divisor));
  }
  if (value.rlim_max != RLIM_INFINITY) {
    std::snprintf(first, sizeof(first), "%lu",
                  static_cast<unsigned long>(value.rlim_max / limit.divisor));
  }
  std::snprintf(line + used, size - used, " %s:%s[%s]%s", limit.name, first, bracket, limit.unit);
}

}  // namespace

namespace Installation {

void ReportResourceLimits() {
  for (int start = 0; start < kNumLimits; start += kLimitsPerLine) {
    char line[256] = "Res Limits:";
    for (int i = start; i < start + kLimitsPerLine && i < kNumLimits; ++i) {
      AppendLimit(line, sizeof(line), kLimits[i]);
    }
    QWD_LOG_INFO(kComponent, "%s\n", line);
  }
}

}  // namespace Installation
