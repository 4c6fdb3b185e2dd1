// What the agent does for a card's handlers (platform/agent.h): the order of names, and values from their
// encoding (ITU-T X.690) by Net-SNMP's parsers, whose numbers are wider than the card's.
#include <algorithm>
#include <compare>

#include "headend/firmware/snmp/net_snmp.h"

namespace chassis {
namespace {

// Calls a parser of the library with sizes of its own width.
template <typename Parse>
u8* parsed(u8* data, int* datalength, Parse parse) {
  auto left = static_cast<std::size_t>(*datalength);
  u8* end = parse(data, &left);
  if (end != nullptr) *datalength = static_cast<int>(left);
  return end;
}

}  // namespace

int compare(const u32* name1, int length1, const u32* name2, int length2) {
  const auto order = std::lexicographical_compare_three_way(name1, name1 + length1, name2, name2 + length2);
  return std::is_lt(order) ? -1 : std::is_gt(order) ? 1 : 0;
}

u8* asn_parse_string(u8* data, int* datalength, u8* type, u8* string, int* strlength) {
  return parsed(data, datalength, [&](u8* from, std::size_t* left) {
    auto size = static_cast<std::size_t>(*strlength);
    u8* end = ::asn_parse_string(from, left, type, string, &size);
    if (end != nullptr) *strlength = static_cast<int>(size);
    return end;
  });
}

// The library's parser of that name takes counters and gauges; this agent's takes an INTEGER, as the card's
// rows are.
u8* asn_parse_unsigned_int(u8* data, int* datalength, u8* type, u32* number, int numberSize) {
  if (numberSize != static_cast<int>(sizeof *number)) return nullptr;
  return parsed(data, datalength, [&](u8* from, std::size_t* left) {
    long value = 0;
    u8* end = ::asn_parse_int(from, left, type, &value, sizeof value);
    if (end != nullptr) *number = static_cast<u32>(value);
    return end;
  });
}

}  // namespace chassis
