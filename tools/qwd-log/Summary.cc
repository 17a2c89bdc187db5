#include "tools/qwd-log/Summary.h"

#include <cstdlib>
#include <string_view>

namespace {

// The text between begin and the next end after it (or the message's end);
// *found tells whether the message holds begin at all.
std::string Between(const std::string& text, std::string_view begin, std::string_view end,
                    bool* found) {
  const size_t start = text.find(begin);
  *found = start != std::string::npos;
  if (!*found) return "";
  const size_t from = start + begin.size();
  return text.substr(from, text.find(end, from) - from);
}

}  // namespace

void Summary::Add(const LogRecord& record) {
  if (record.kind != LogLineKind::ENTRY) return;
  Hour& hour = hours_[record.time.substr(0, 13)];
  const std::string& message = record.message;
  bool found = false;
  if (record.level == "CRASH") {
    if (message.rfind("Crashed at", 0) == 0) {
      ++hour.crashes;
      events_.push_back(record.time + "  crash: " + message);
    }
    return;
  }
  if (message.rfind("Launched process '", 0) == 0) ++hour.launches;
  std::string entity = Between(message, "Entity '", "' status is ", &found);
  if (found) {
    // Every entity not running is restarted; only a requested restart is no failure.
    const std::string status = Between(message, "' status is ", "(", &found);
    ++hour.restarts;
    if (status != "restart") ++hour.failures;
    ++causes_[entity][status];
  }
  entity = Between(message, "Failed starting entity '", "'", &found);
  if (found) {
    ++hour.failures;
    ++causes_[entity]["start failed"];
  }
  const std::string path = Between(message, "process '", "' didn't exit", &found);
  if (found && message.find("killed or crashed") != std::string::npos) {
    ++causes_[path.substr(path.rfind('/') + 1)]["killed or crashed"];
  }
  const std::string delay = Between(message, "policy violation resulted in sleeping ", " ", &found);
  // The policy also reports a sleep of 0 seconds: no delay.
  if (found && std::atoi(delay.c_str()) > 0) {
    ++hour.delays;
    hour.delaySec += std::atoi(delay.c_str());
  }
  const std::string modes = Between(message, "Switching modes ", "\n", &found);
  if (found) {
    ++hour.switches;
    events_.push_back(record.time + "  mode switch " + modes);
  }
  if (message.find("encountered critical error") != std::string::npos) ++hour.criticals;
}

void Summary::Print(FILE* out) const {
  std::fprintf(out, "%-13s %8s %8s %8s %6s %9s %8s %9s %7s\n", "Hour", "Launches", "Restarts",
               "Failures", "Delays", "Delay-sec", "Switches", "Criticals", "Crashes");
  for (const auto& [hour, n] : hours_) {
    std::fprintf(out, "%-13s %8d %8d %8d %6d %9d %8d %9d %7d\n",
                 hour.empty() ? "(no time)" : hour.c_str(), n.launches, n.restarts, n.failures,
                 n.delays, n.delaySec, n.switches, n.criticals, n.crashes);
  }
  std::fputs("\nRestarts by entity and cause\n", out);
  for (const auto& [entity, causes] : causes_) {
    std::string text;
    for (const auto& [cause, count] : causes) {
      text += (text.empty() ? "" : ", ") + cause + " " + std::to_string(count);
    }
    std::fprintf(out, "  %-24s %s\n", entity.c_str(), text.c_str());
  }
  std::fputs("\nMode switches and crashes\n", out);
  for (const std::string& event : events_) std::fprintf(out, "  %s\n", event.c_str());
}
