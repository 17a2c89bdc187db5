#include "tools/qwd-log/RecordMerge.h"

#include "tools/qwd-log/LogFiles.h"

void RecordMerge::Add(const std::string& path, LogRecord record) {
  LogFileName name;
  const std::string prefix = ParseLogFileName(path, &name) ? name.prefix : path;
  Log* log = nullptr;
  for (Log& candidate : logs_) {
    if (candidate.prefix == prefix) log = &candidate;
  }
  if (log == nullptr) log = &logs_.emplace_back(Log{prefix, {}});
  std::string time = record.time;
  if (time.empty() && !log->items.empty()) time = log->items.back().time;
  log->items.push_back(Item{std::move(record), path, std::move(time)});
}

void RecordMerge::ForEach(const RecordFn& fn) const {
  std::vector<size_t> next(logs_.size(), 0);
  for (;;) {
    const Item* first = nullptr;
    size_t from = 0;
    for (size_t i = 0; i < logs_.size(); ++i) {
      if (next[i] == logs_[i].items.size()) continue;
      const Item& head = logs_[i].items[next[i]];
      if (first == nullptr || head.time < first->time) {
        first = &head;
        from = i;
      }
    }
    if (first == nullptr) return;
    ++next[from];
    fn(first->record, first->path);
  }
}
