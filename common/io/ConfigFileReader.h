#pragma once

// A FileReader that also splits "key=value" lines, one call per line.
//
// Line grammar (blanks are space and tab only):
//   - blanks, then a newline, "#" or the end of the text: an empty line;
//   - key: a run of word characters (ASCII letters, digits and "_-.:,/*");
//   - blanks, "=", blanks;
//   - value: a run of word characters, or everything between two double quotes
//     taken literally (no escapes); whatever follows the value is ignored.
// Lines are read in pieces of at most kMaxLineLength - 1 characters: the rest
// of a longer line is read as a line of its own.

#include <cstdint>
#include <memory>

#include "common/io/FileReader.h"

class ConfigFileReader : public FileReader {
 public:
  static constexpr int32_t kMaxLineLength = 1024;

  // Null (logged by the file reader) when the path has 256 characters or more.
  friend std::unique_ptr<ConfigFileReader> CreateConfigFileReader(const char* path,
                                                                  int32_t closeAllowed);

  // Reads the next line into key (at most keySize - 1 characters) and value
  // (at most valueSize - 1). True when a line was consumed and understood; an
  // empty or comment line gives an empty key and value. False (logged) at the
  // end of the file, on a read error, on a malformed line, and when the two
  // sizes together reach kMaxLineLength + 1.
  virtual bool ReadKeyValue(char* key, int32_t keySize, char* value, int32_t valueSize);

 private:
  ConfigFileReader() = default;
  bool ConfigFileReaderCtor(const char* path, int32_t closeAllowed);
};

std::unique_ptr<ConfigFileReader> CreateConfigFileReader(const char* path, int32_t closeAllowed);
