#pragma once

// The log files' format, shared by everything that writes them (the logger,
// the crash handler) and everything that reads them (qwd-log): field names,
// the JSON line, the account id header, the end marker and the file names.
// Macros where the text must stay a literal: format strings are checked by
// the compiler, and the signal-safe crash writer takes no other kind.

#include <cstddef>
#include <string_view>

// The fields of a JSON line.
#define QWD_LOG_FIELD_LEVEL "level"
#define QWD_LOG_FIELD_TIMESTAMP "timestamp"    // monotonic seconds
#define QWD_LOG_FIELD_METADATA "metadata"      // holds the next three
#define QWD_LOG_FIELD_TIME "router_timestamp"  // local wall-clock time, kTimeFormat
#define QWD_LOG_FIELD_FILE "c_file"
#define QWD_LOG_FIELD_LINE "line"
#define QWD_LOG_FIELD_MESSAGE "message"
#define QWD_LOG_FIELD_ACCOUNT_ID "account_id"  // in the header line only

// The pieces of a JSON line, the values between them:
// {"level": "<level>", "timestamp": <seconds>, "metadata" : {"router_timestamp" : "<time>",
// "c_file": "<file>", "line": <line> }, "message": "<escaped message>"},\n
#define QWD_LOG_JSON_BEFORE_LEVEL "{\"" QWD_LOG_FIELD_LEVEL "\": \""
#define QWD_LOG_JSON_BEFORE_TIMESTAMP "\", \"" QWD_LOG_FIELD_TIMESTAMP "\": "
#define QWD_LOG_JSON_BEFORE_TIME \
  ", \"" QWD_LOG_FIELD_METADATA "\" : {\"" QWD_LOG_FIELD_TIME "\" : \""
#define QWD_LOG_JSON_BEFORE_FILE "\", \"" QWD_LOG_FIELD_FILE "\": \""
#define QWD_LOG_JSON_BEFORE_LINE "\", \"" QWD_LOG_FIELD_LINE "\": "
#define QWD_LOG_JSON_BEFORE_MESSAGE " }, \"" QWD_LOG_FIELD_MESSAGE "\": \""
#define QWD_LOG_JSON_END "\"},\n"
// The whole line as a format: level, seconds (long), time, file, line (int), message.
#define QWD_LOG_JSON_LINE_FORMAT                                                              \
  QWD_LOG_JSON_BEFORE_LEVEL "%s" QWD_LOG_JSON_BEFORE_TIMESTAMP "%ld" QWD_LOG_JSON_BEFORE_TIME \
                            "%s" QWD_LOG_JSON_BEFORE_FILE "%s" QWD_LOG_JSON_BEFORE_LINE       \
                            "%d" QWD_LOG_JSON_BEFORE_MESSAGE "%s" QWD_LOG_JSON_END

// The first line of every log file: {"account_id": "<id>"},
#define QWD_LOG_HEADER_START "{\"" QWD_LOG_FIELD_ACCOUNT_ID "\": \""
#define QWD_LOG_HEADER_FORMAT QWD_LOG_HEADER_START "%s\"},"

// The last line of a closed log file.
#define QWD_LOG_END_OBJECT                                            \
  "{ \"" QWD_LOG_FIELD_LEVEL "\": \"INFO\", \"" QWD_LOG_FIELD_MESSAGE \
  "\": \"<--- Log file end --->\" }"

namespace LogFormat {

inline constexpr std::string_view kHeaderStart = QWD_LOG_HEADER_START;
inline constexpr std::string_view kEndObject = QWD_LOG_END_OBJECT;
// As written when a file is closed; 58 bytes.
inline constexpr char kEndMarker[] = "\n" QWD_LOG_END_OBJECT "\n";
inline constexpr size_t kEndMarkerLength = sizeof(kEndMarker) - 1;
static_assert(kEndMarkerLength == 58);

// The time of a line, strftime's format, in local time.
inline constexpr char kTimeFormat[] = "%Y-%m-%d %H:%M:%S";

// Every log file of a family: "<dir>/<prefix>_<pid>_<generation>.<index>", the
// prefix "Quillmor_<version>_<family>". A crash dump is "<dir>/<prefix>_<pid>.log".
inline constexpr char kProductPrefix[] = "Quillmor_";
#define QWD_LOG_FILE_NAME_FORMAT "%s/%s_%d_%d.%zu"
#define QWD_LOG_PREFIX_FORMAT "%s%s_%s"
#define QWD_CRASH_DUMP_NAME_FORMAT "%s/%s_%d.log"
inline constexpr std::string_view kCrashDumpSuffix = ".log";

}  // namespace LogFormat
