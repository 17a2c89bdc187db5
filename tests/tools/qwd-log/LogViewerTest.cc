// The log viewer's parts on real files: which lines it understands, the order
// of rotated and reused files, and following files that grow, are cut short
// or are reused.

#include <fcntl.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/TempDir.h"
#include "tools/qwd-log/LogFiles.h"
#include "tools/qwd-log/LogRecord.h"
#include "tools/qwd-log/Options.h"
#include "tools/qwd-log/RecordMerge.h"
#include "tools/qwd-log/Summary.h"

namespace {

const std::string kPrefix = "Quillmor_40.5.21.71902_WatchdogLogger";

std::string JsonLine(const std::string& level, const std::string& message) {
  return "{\"level\": \"" + level +
         "\", \"timestamp\": 7, \"metadata\" : {\"router_timestamp\" : \"2026-11-23 07:41:52\", "
         "\"c_file\": \"../watchdog/Watchdog.cc\", \"line\": 42 }, \"message\": \"" +
         message + " \"},";
}

// Sets a file's modification time to the given second.
void Touch(const std::string& path, time_t second) {
  const timespec times[2] = {{second, 0}, {second, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST(LogRecordTest, KnownLinesAreUnderstoodAndTheRestKeptWhole) {
  const LogRecord entry = ParseLogLine(JsonLine("WARN", "Process 'a' is \xc3\xa9 OK!"));
  EXPECT_EQ(entry.kind, LogLineKind::ENTRY);
  EXPECT_EQ(entry.time + "|" + entry.level + "|" + entry.file + "|" + entry.message,
            "2026-11-23 07:41:52|WARN|watchdog/Watchdog.cc|Process 'a' is \xc3\xa9 OK!");
  EXPECT_EQ(entry.line * 100 + entry.timestamp, 4207);

  const LogRecord human = ParseLogLine(
      "2026-11-23 07:41:52 ../watchdog/X.cc(486): INFO: DefaultAccountID Run Started it\n");
  EXPECT_EQ(human.kind, LogLineKind::ENTRY);
  EXPECT_EQ(human.file + ":" + std::to_string(human.line) + " " + human.level + " " +
                human.function + " " + human.message,
            "watchdog/X.cc:486 INFO Run Started it");

  const std::string full = JsonLine("INFO", "x");
  for (const std::string& bad :
       {full.substr(0, full.size() / 2), full + "trailing", std::string("plain text"),
        std::string("{\"level\": \"CRASH\", \"message\": \"a \"quoted\" b\"},"),
        std::string("{\"message\": \"no level\"},"),
        std::string("2026-11-23 07:41:52 f.cc(x): INFO: a b c")}) {
    const LogRecord record = ParseLogLine(bad);
    EXPECT_EQ(record.kind, LogLineKind::UNPARSED) << bad;
    EXPECT_EQ(record.text, bad);
  }
}

TEST(LogFilesTest, ReadingOrderAcrossRotationAndReuse) {
  // Generation 0 was written 0, 1, then 0 again (reused); generation 1 came
  // last. The crash dump has a prefix of its own, read after; other names are skipped.
  TempDir dir;
  for (const char* other : {"watchdog.cfg", "x_1.2", "_1_2.3", "Quillmor_a_b.c"})
    dir.Write(other, "");
  const std::string g0i0 = dir.Write(kPrefix + "_77_0.0", "");
  const std::string g0i1 = dir.Write(kPrefix + "_77_0.1", "");
  const std::string g1i0 = dir.Write(kPrefix + "_77_1.0", "");
  const std::string dump = dir.Write("Quillmor_40.5.21.71902_WatchdogStackTrace_0.log", "");
  Touch(g0i1, 1000);
  Touch(g0i0, 1001);
  Touch(g1i0, 1002);
  Touch(dump, 900);
  EXPECT_EQ(ListLogFiles({dir.path()}), (std::vector<std::string>{g0i1, g0i0, g1i0, dump}));
  EXPECT_EQ(ListLogFiles({dir.File("watchdog.cfg")}).size(), 1u);
}

TEST(LogTailTest, FollowsGrowthWaitsForCutLinesAndRereadsReusedFiles) {
  TempDir dir;
  const std::string path = dir.Write(kPrefix + "_1_0.0", "one\ntw");
  LogTail tail;
  std::vector<std::string> lines;
  const LogTail::LineFn collect = [&](std::string_view line, const std::string&) {
    lines.emplace_back(line);
  };
  tail.Read({path}, false, collect);
  EXPECT_EQ(lines, std::vector<std::string>{"one"});
  dir.Write(kPrefix + "_1_0.0", "one\ntwo\nthree\nfo");
  tail.Read({path}, false, collect);
  EXPECT_EQ(lines, (std::vector<std::string>{"one", "two", "three"}));
  // Reused: emptied and written again, shorter than what was read.
  dir.Write(kPrefix + "_1_0.0", "new\n");
  tail.Read({path}, false, collect);
  EXPECT_EQ(lines.back(), "new");
  // A file cut in the middle of a line: the piece is given at the end.
  dir.Write(kPrefix + "_1_0.0", "new\nhal");
  tail.Read({path, dir.File("gone")}, true, collect);
  EXPECT_EQ(lines, (std::vector<std::string>{"one", "two", "three", "new", "hal"}));
}

std::string Parsed(std::vector<const char*> args, Options* options) {
  args.insert(args.begin(), "qwd-log");
  std::string error;
  return ParseOptions(static_cast<int>(args.size()), const_cast<char**>(args.data()), options,
                      &error)
             ? "ok"
             : error;
}

TEST(OptionsTest, BadOptionsAreNamedLevelsTakeAnyCaseAndTimesBoundEntries) {
  Options options;
  EXPECT_EQ(
      Parsed({"--help", "--summary", "--level", "warn", "--until", "2026-11-23T07"}, &options),
      "ok");
  EXPECT_TRUE(options.help && options.summary);
  EXPECT_EQ(options.minLevel, LogLevelRank("WARN"));
  EXPECT_EQ(Parsed({"--since", "2026-11-23 07:41"}, &options), "ok");
  EXPECT_TRUE(WithinTimes("2026-11-23 07:59:59", options));
  EXPECT_FALSE(WithinTimes("2026-11-23 08:00:00", options));
  EXPECT_FALSE(WithinTimes("2026-11-23 07:40:59", options));
  EXPECT_EQ(Parsed({"--bogus"}, &options), "unknown option '--bogus'");
  EXPECT_EQ(Parsed({"--level", "loud"}, &options), "unknown level 'loud'");
  EXPECT_EQ(Parsed({"--since", "yesterday"}, &options).substr(0, 16), "bad time 'yester");
  EXPECT_EQ(Parsed({"--until"}, &options), "option '--until' needs a value");
}

TEST(RecordMergeTest, TheCrashRecordSortsByItsTimeAndEachLogKeepsItsOrder) {
  const auto entry = [](const std::string& time, const std::string& message) {
    LogRecord record = ParseLogLine(JsonLine("INFO", message));
    record.time = time;
    return record;
  };
  RecordMerge merge;
  const std::string dump = "Quillmor_1_WatchdogStackTrace_0.log";
  merge.Add(kPrefix + "_5_0.0", entry("2026-11-23 07:00:00", "a"));
  merge.Add(kPrefix + "_5_0.0", ParseLogLine("unparsed b"));
  merge.Add(kPrefix + "_5_0.1", entry("2026-11-23 09:00:00", "d"));
  merge.Add(kPrefix + "_5_0.1", entry("1970-01-01 00:00:01", "e"));  // the clock set back
  merge.Add(dump, entry("2026-11-23 06:00:00", "start"));
  merge.Add(dump, entry("2026-11-23 08:00:00", "crash"));
  std::string order;
  merge.ForEach([&](const LogRecord& record, const std::string&) {
    order += (record.kind == LogLineKind::ENTRY ? record.message : record.text) + "|";
  });
  EXPECT_EQ(order, "start|a|unparsed b|crash|d|e|");
}

TEST(SummaryTest, CountsPerHourAndCausesPerEntity) {
  Summary summary;
  for (const char* message :
       {"Launched process 'agent' at '/x', pid 3", "Entity 'agent' status is dead(3). Restart",
        "Entity 'exec' status is restart(4). Restart",
        "Current or previous policy violation resulted in sleeping 4 seconds",
        "Switching modes 0 -> 1"}) {
    summary.Add(ParseLogLine(JsonLine("INFO", message)));
  }
  summary.Add(ParseLogLine(JsonLine("CRASH", "Crashed at [0x4] signal:11")));
  char* text = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&text, &size);
  summary.Print(out);
  std::fclose(out);
  const std::string printed(text);
  std::free(text);
  EXPECT_NE(printed.find("2026-11-23 07        1        2        1      1         4        1 "
                         "        0       1\n"),
            std::string::npos)
      << printed;
  EXPECT_NE(printed.find("  agent                    dead 1\n"), std::string::npos);
  EXPECT_NE(printed.find("07:41:52  mode switch 0 -> 1\n"), std::string::npos);
}

}  // namespace
