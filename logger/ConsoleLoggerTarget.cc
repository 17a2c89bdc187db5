#include "logger/ConsoleLoggerTarget.h"

#include <cstdio>
#include <new>

std::unique_ptr<ConsoleLoggerTarget> ConsoleLoggerTarget::Create() {
  return std::unique_ptr<ConsoleLoggerTarget>(new (std::nothrow) ConsoleLoggerTarget());
}

bool ConsoleLoggerTarget::Write(const char* text, size_t /*length*/) {
  if (text == nullptr || !IsEnabled()) return false;
  return std::printf("%s", text) >= 0;
}
