// Elements in the encoding of SNMP's messages (ITU-T X.690).
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "platform/types.h"

namespace headend {

inline constexpr std::size_t kMostIntegerOctets = sizeof(std::int32_t);

// The content of an element that begins with its length (8.1.3), in the short or the long form. nullopt if it
// is longer than the bytes.
std::optional<std::span<u8>> berContent(std::span<u8> bytes);

// The number that an INTEGER's content of 1 to kMostIntegerOctets octets is (8.3).
std::int32_t berInteger(std::span<const u8> content);

}  // namespace headend
