#pragma once

#include <cstdint>

// Result of nearly every operation. The numbers travel inside IPC replies and
// are compared by value, so they are fixed.
enum class StatusCode : uint32_t {
  SUCCESS = 0,
  PENDING = 1,
  DUPLICATE = 2,
  FAILURE = 3,
  BUSY = 4,
  INVALID_CONF = 5,
  RESOLVE_IP = 6,
  OUT_OF_MEMORY = 7,
  TIMEOUT = 8,
  NOT_SUPPORTED = 9,
  INVALID_PARAM = 10,
  NOT_FOUND = 11,
  EXISTS = 12,
  SYSTEM_CMD = 13,
  FILTER_EXISTS = 14,
  FILTER_FULL = 15,
  FILTER_NOT_FOUND = 16,
  NOT_INITIALIZED = 17,
  IRRELEVANT = 18,
  INVALID_SIGNATURE = 19,
  INVALID_CERTIFICATE = 20,
  NOT_IMPLEMENTED = 21,
  PROTO_DECODING_FAILED = 22,
  NUM_OF = 23,  // a count, printed as "UNKNOWN"
};

// Name of a code; every value from NUM_OF on is "UNKNOWN".
const char* StatusCodeToStr(StatusCode code);

// Raw value for printf-style "%s(%d)" pairs.
constexpr int StatusCodeToInt(StatusCode code) { return static_cast<int>(code); }
