#include "headend/firmware/snmp/ber.h"

#include <algorithm>
#include <limits>

namespace headend {

std::optional<std::span<u8>> berContent(std::span<u8> bytes) {
  constexpr unsigned kLongForm = 0x80;
  if (bytes.empty()) return std::nullopt;
  std::uint64_t length = bytes[0];
  bytes = bytes.subspan(1);
  if (length >= kLongForm) {
    const auto octets = static_cast<std::size_t>(length - kLongForm);
    if (octets == 0 || octets > bytes.size()) return std::nullopt;
    length = 0;
    for (const u8 octet : bytes.first(octets))
      length = std::min<std::uint64_t>(length << 8U | octet, std::numeric_limits<u32>::max());
    bytes = bytes.subspan(octets);
  }
  if (length > bytes.size()) return std::nullopt;
  return bytes.first(static_cast<std::size_t>(length));
}

std::int32_t berInteger(std::span<const u8> content) {
  u32 bits = (content.front() & 0x80U) != 0 ? ~u32{0} : 0;
  for (const u8 octet : content) bits = bits << 8U | octet;
  return static_cast<std::int32_t>(bits);
}

}  // namespace headend
