#pragma once

// Names of the log levels as the log lines print them.

#include <cstdint>

#include "common/Log.h"

// "DEBUG" ... "FATAL"; "N/A" for every value from INVALID (6) on.
const char* LoggerLevelToStr(uint32_t level);
// Exact match against the six real level names, first match wins; INVALID
// when nothing matches (the name "INVALID" itself included).
LoggerLevel LoggerLevelFromStr(const char* name);
