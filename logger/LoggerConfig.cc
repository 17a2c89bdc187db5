#include "logger/LoggerConfig.h"

#include <new>

#include "common/StringUtils.h"

std::unique_ptr<LoggerConfig> LoggerConfig::CreateConsoleLoggerConfig() {
  return std::unique_ptr<LoggerConfig>(new (std::nothrow) LoggerConfig(kConsole));
}

std::unique_ptr<LoggerConfig> LoggerConfig::CreateFileLoggerConfig(const char* directory,
                                                                   const char* prefix,
                                                                   uint32_t maxFileSize,
                                                                   uint32_t numFiles, int32_t pid) {
  std::unique_ptr<LoggerConfig> config(new (std::nothrow) LoggerConfig(kFile));
  if (!config) return nullptr;
  config->directory_ = DuplicateString(directory);
  config->prefix_ = DuplicateString(prefix);
  if (!config->directory_ || !config->prefix_) return nullptr;
  config->maxFileSize_ = maxFileSize;
  config->numFiles_ = numFiles;
  config->pid_ = pid;
  return config;
}

std::unique_ptr<LoggerConfig> LoggerConfig::CreateUdpLoggerConfig(uint32_t serverIp,
                                                                  uint32_t serverPort) {
  std::unique_ptr<LoggerConfig> config(new (std::nothrow) LoggerConfig(kUdp));
  if (!config) return nullptr;
  config->serverIp_ = serverIp;
  config->serverPort_ = serverPort;
  return config;
}

void LoggerConfig::DestroyConfig(std::unique_ptr<LoggerConfig>* config) {
  if (config != nullptr) config->reset();
}
