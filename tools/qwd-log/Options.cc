#include "tools/qwd-log/Options.h"

#include <cctype>

#include "tools/qwd-log/LogRecord.h"

const char kUsage[] =
    "Usage: qwd-log [OPTION]... [DIR|FILE]...\n"
    "Prints log files and crash dumps in time order (default directory: /var/log/quillmor).\n"
    "  --json               one JSON object per line\n"
    "  --level LEVEL        entries of LEVEL and above, in any case\n"
    "                       (debug verbose info warn error fatal crash)\n"
    "  --component TEXT     entries whose source path (e.g. watchdog/entities, IpcChannel)\n"
    "                       contains TEXT, or whose function does on lines that name one\n"
    "  --since TIME         entries from TIME on; TIME is YYYY-MM-DD[ HH[:MM[:SS]]]\n"
    "  --until TIME         entries up to the end of TIME\n"
    "  --summary            restarts, failures by entity, policy delays, mode switches\n"
    "                       and crashes per hour, instead of the lines\n"
    "  --symbolize BINARY   crash frames as function, file and line, from the unstripped\n"
    "                       BINARY of the crashed version and its CPU's addr2line\n"
    "  --follow, -f         keep reading as the files grow and rotate\n"
    "  --help, -h           this text\n";

namespace {

// A prefix of "dddd-dd-dd dd:dd:dd" that ends at a field; 'T' may stand for
// the blank. Normalised in place.
bool ParseTime(std::string* time) {
  constexpr std::string_view kShape = "dddd-dd-dd dd:dd:dd";
  if (time->size() > 10 && (*time)[10] == 'T') (*time)[10] = ' ';
  const size_t n = time->size();
  if (n != 10 && n != 13 && n != 16 && n != 19) return false;
  for (size_t i = 0; i < n; ++i) {
    const bool digit = std::isdigit(static_cast<unsigned char>((*time)[i])) != 0;
    if (kShape[i] == 'd' ? !digit : (*time)[i] != kShape[i]) return false;
  }
  return true;
}

}  // namespace

bool ParseOptions(int argc, char** argv, Options* options, std::string* error) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const bool takesValue = arg == "--level" || arg == "--component" || arg == "--since" ||
                            arg == "--until" || arg == "--symbolize";
    if (takesValue && i + 1 >= argc) {
      *error = "option '" + arg + "' needs a value";
      return false;
    }
    const std::string value = takesValue ? argv[++i] : "";
    if (arg == "--help" || arg == "-h") {
      options->help = true;
    } else if (arg == "--json") {
      options->json = true;
    } else if (arg == "--follow" || arg == "-f") {
      options->follow = true;
    } else if (arg == "--summary") {
      options->summary = true;
    } else if (arg == "--level") {
      options->minLevel = LogLevelRank(value);
      if (options->minLevel < 0) {
        *error = "unknown level '" + value + "'";
        return false;
      }
    } else if (arg == "--component") {
      options->component = value;
    } else if (arg == "--since" || arg == "--until") {
      std::string& bound = arg == "--since" ? options->since : options->until;
      bound = value;
      if (!ParseTime(&bound)) {
        *error = "bad time '" + value + "' for " + arg + " (YYYY-MM-DD[ HH[:MM[:SS]]])";
        return false;
      }
    } else if (arg == "--symbolize") {
      options->symbolize = value;
    } else if (arg.size() > 1 && arg[0] == '-') {
      *error = "unknown option '" + arg + "'";
      return false;
    } else {
      options->paths.push_back(arg);
    }
  }
  if (options->follow && options->summary) {
    *error = "--summary reads the files once: it does not go with --follow";
    return false;
  }
  if (options->paths.empty()) options->paths.push_back("/var/log/quillmor");
  return true;
}

bool WithinTimes(const std::string& time, const Options& options) {
  if (options.since.empty() && options.until.empty()) return true;
  if (time.empty()) return false;
  if (!options.since.empty() && time < options.since) return false;
  return options.until.empty() || time.compare(0, options.until.size(), options.until) <= 0;
}
