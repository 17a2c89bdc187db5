#include "common/StatusCode.h"

namespace {

constexpr const char* kStatusCodeNames[] = {
    "SUCCESS",
    "PENDING",
    "DUPLICATE",
    "FAILURE",
    "BUSY",
    "INVALID_CONF",
    "RESOLVE_IP",
    "OUT_OF_MEMORY",
    "TIMEOUT",
    "NOT_SUPPORTED",
    "INVALID_PARAM",
    "NOT_FOUND",
    "EXISTS",
    "SYSTEM_CMD",
    "FILTER_EXISTS",
    "FILTER_FULL",
    "FILTER_NOT_FOUND",
    "NOT_INITIALIZED",
    "IRRELEVANT",
    "INVALID_SIGNATURE",
    "INVALID_CERTIFICATE",
    "NOT_IMPLEMENTED",
    "PROTO_DECODING_FAILED",
    "NUM_OF",
};

}  // namespace

const char* StatusCodeToStr(StatusCode code) {
  const auto value = static_cast<uint32_t>(code);
  // NUM_OF sits in the table but is a count, not a result.
  if (value < static_cast<uint32_t>(StatusCode::NUM_OF)) return kStatusCodeNames[value];
  return "UNKNOWN";
}
