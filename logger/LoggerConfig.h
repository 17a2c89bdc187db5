#pragma once

// What one log target is made from: the console, a rotating set of files, or a
// UDP log server. Owned by the caller, who may destroy it once the logger has
// been initialised from it.

#include <cstdint>
#include <memory>

class LoggerConfig {
 public:
  enum Type : uint32_t { kConsole = 0, kFile = 1, kUdp = 2 };

  // Null when memory is exhausted.
  static std::unique_ptr<LoggerConfig> CreateConsoleLoggerConfig();
  // Copies both strings; null when any allocation fails (nothing is kept).
  static std::unique_ptr<LoggerConfig> CreateFileLoggerConfig(const char* directory,
                                                              const char* prefix,
                                                              uint32_t maxFileSize,
                                                              uint32_t numFiles, int32_t pid);
  // Address and port in host byte order.
  static std::unique_ptr<LoggerConfig> CreateUdpLoggerConfig(uint32_t serverIp,
                                                             uint32_t serverPort);
  // Releases the configuration and clears the caller's pointer; null is ignored.
  static void DestroyConfig(std::unique_ptr<LoggerConfig>* config);

  Type GetType() const { return type_; }
  const char* GetDirectory() const { return directory_.get(); }
  const char* GetPrefix() const { return prefix_.get(); }
  uint32_t GetMaxFileSize() const { return maxFileSize_; }
  uint32_t GetNumFiles() const { return numFiles_; }
  int32_t GetPid() const { return pid_; }
  uint32_t GetServerIp() const { return serverIp_; }
  uint32_t GetServerPort() const { return serverPort_; }

 private:
  explicit LoggerConfig(Type type) : type_(type) {}

  Type type_;                          // which target this configures
  std::unique_ptr<char[]> directory_;  // file: directory of the log files
  std::unique_ptr<char[]> prefix_;     // file: start of every file name
  uint32_t maxFileSize_ = 0;           // file: bytes after which a file rotates
  uint32_t numFiles_ = 0;              // file: files in the rotation
  int32_t pid_ = 0;                    // file: process id in the file names
  uint32_t serverIp_ = 0;              // UDP: server IPv4 address, host order
  uint32_t serverPort_ = 0;            // UDP: server port, host order
};
