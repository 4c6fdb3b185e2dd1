// What the agent does for a card's handlers (platform/agent.h): the order of names, and values from their
// encoding (ITU-T X.690) by Net-SNMP's parsers, whose numbers are wider than the card's. And a stricter
// parser of an INTEGER for Net-SNMP itself.
#include <algorithm>
#include <compare>
#include <cstdint>

#include "headend/firmware/snmp/net_snmp.h"

// In place of the library's own (X.690, 8.3), which cuts a number of more than 32 bits to its lowest 32: a
// SET of 2^32 + 474000 would tune a card to 474000 kHz. The library calls this one, because a program's
// symbol comes before a shared library's. A message with a longer number is malformed and gets no answer.
extern "C" u_char* asn_parse_int(u_char* data, std::size_t* datalength, u_char* type, long* number,
                                 std::size_t /*size*/) {
  constexpr std::size_t kHeader = 2;  // a number is always short enough for a length of one byte
  constexpr std::size_t kMostContent = 4;
  if (*datalength <= kHeader) return nullptr;
  const std::size_t length = data[1];
  *type = data[0];
  if (*type != ASN_INTEGER || length == 0 || length > kMostContent || length > *datalength - kHeader)
    return nullptr;
  u_char* content = data + kHeader;
  auto value = static_cast<std::int32_t>((*content & 0x80U) != 0 ? -1 : 0);
  std::for_each_n(content, length, [&](u_char byte) {
    value = static_cast<std::int32_t>(static_cast<std::uint32_t>(value) << 8U | byte);
  });
  *number = value;
  *datalength -= kHeader + length;
  return content + length;
}

namespace chassis {

int compare(const u32* name1, int length1, const u32* name2, int length2) {
  const auto order = std::lexicographical_compare_three_way(name1, name1 + length1, name2, name2 + length2);
  return std::is_lt(order) ? -1 : std::is_gt(order) ? 1 : 0;
}

u8* asn_parse_string(u8* data, int* datalength, u8* type, u8* string, int* strlength) {
  auto left = static_cast<std::size_t>(*datalength);
  auto size = static_cast<std::size_t>(*strlength);
  u8* end = ::asn_parse_string(data, &left, type, string, &size);
  if (end == nullptr) return nullptr;
  *datalength = static_cast<int>(left);
  *strlength = static_cast<int>(size);
  return end;
}

// The library's parser of that name takes counters and gauges; this agent's takes an INTEGER, as the card's
// rows are.
u8* asn_parse_unsigned_int(u8* data, int* datalength, u8* type, u32* number, int numberSize) {
  auto left = static_cast<std::size_t>(*datalength);
  long value = 0;
  if (numberSize != static_cast<int>(sizeof *number)) return nullptr;
  u8* end = ::asn_parse_int(data, &left, type, &value, sizeof value);
  if (end == nullptr) return nullptr;
  *datalength = static_cast<int>(left);
  *number = static_cast<u32>(value);
  return end;
}

}  // namespace chassis
