#include "common/StatusCode.h"

#include "common/PackedNames.h"

namespace {

constexpr auto kStatusCodeNames = PackNames<24>(
    "SUCCESS\0"
    "PENDING\0"
    "DUPLICATE\0"
    "FAILURE\0"
    "BUSY\0"
    "INVALID_CONF\0"
    "RESOLVE_IP\0"
    "OUT_OF_MEMORY\0"
    "TIMEOUT\0"
    "NOT_SUPPORTED\0"
    "INVALID_PARAM\0"
    "NOT_FOUND\0"
    "EXISTS\0"
    "SYSTEM_CMD\0"
    "FILTER_EXISTS\0"
    "FILTER_FULL\0"
    "FILTER_NOT_FOUND\0"
    "NOT_INITIALIZED\0"
    "IRRELEVANT\0"
    "INVALID_SIGNATURE\0"
    "INVALID_CERTIFICATE\0"
    "NOT_IMPLEMENTED\0"
    "PROTO_DECODING_FAILED\0"
    "NUM_OF\0");
static_assert(kStatusCodeNames.count == 24);

}  // namespace

const char* StatusCodeToStr(StatusCode code) {
  const auto value = static_cast<uint32_t>(code);
  // NUM_OF sits in the table but is a count, not a result.
  if (value < static_cast<uint32_t>(StatusCode::NUM_OF)) return kStatusCodeNames[value];
  return "UNKNOWN";
}
