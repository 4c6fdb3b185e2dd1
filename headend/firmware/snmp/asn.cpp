// What the agent does for a card's handlers (platform/agent.h): the order of names, and values from their
// encoding (ITU-T X.690) by Net-SNMP's parsers, whose numbers are wider than the card's. And a stricter
// parser of an INTEGER for Net-SNMP itself.
#include <algorithm>
#include <compare>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>

#include "headend/firmware/snmp/net_snmp.h"

namespace {

// The content of an element that begins with its length (X.690, 8.1.3), in the short or the long form.
// nullopt if it is longer than the bytes.
std::optional<std::span<u_char>> contentOf(std::span<u_char> bytes) {
  constexpr unsigned kLongForm = 0x80;
  if (bytes.empty()) return std::nullopt;
  std::size_t length = bytes[0];
  bytes = bytes.subspan(1);
  if (length >= kLongForm) {
    const std::size_t octets = length - kLongForm;
    if (octets == 0 || octets > bytes.size()) return std::nullopt;
    length = 0;
    for (const u_char octet : bytes.first(octets))
      length = std::min<std::size_t>(length << 8U | octet, std::numeric_limits<std::uint32_t>::max());
    bytes = bytes.subspan(octets);
  }
  return length > bytes.size() ? std::nullopt : std::optional(bytes.first(length));
}

}  // namespace

// In place of the library's own (X.690, 8.3), which cuts a number of more than 32 bits to its lowest 32: a
// SET of 2^32 + 474000 would tune a card to 474000 kHz. The library calls this one, because a program's
// symbol comes before a shared library's. Such a number is malformed in a message's header. As the value of
// an object it becomes the highest or lowest number of a `long`, which no object takes: the library parses
// values after it has checked their size, and passes SNMP_MAX_PACKET_LEN in place of the remaining bytes.
extern "C" u_char* asn_parse_int(u_char* data, std::size_t* datalength, u_char* type, long* number,
                                 std::size_t /*size*/) {
  constexpr std::size_t kMostContent = sizeof(std::int32_t);
  if (*datalength == 0) return nullptr;
  *type = data[0];
  if (*type != ASN_INTEGER) return nullptr;
  const auto content = contentOf({data + 1, *datalength - 1});
  if (!content || content->empty()) return nullptr;
  const bool isNegative = (content->front() & 0x80U) != 0;
  if (content->size() <= kMostContent) {
    auto bits = isNegative ? ~std::uint32_t{0} : 0;
    for (const u_char byte : *content) bits = bits << 8U | byte;
    *number = static_cast<std::int32_t>(bits);
  } else if (*datalength == SNMP_MAX_PACKET_LEN) {
    *number = isNegative ? std::numeric_limits<long>::min() : std::numeric_limits<long>::max();
  } else {
    return nullptr;
  }
  u_char* end = content->data() + content->size();
  *datalength -= static_cast<std::size_t>(end - data);
  return end;
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
