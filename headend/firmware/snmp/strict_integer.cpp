// Net-SNMP's parser of an INTEGER (ITU-T X.690, 8.3), in place of the library's own, which cuts a number of
// more than 32 bits to its lowest 32: a SET of 2^32 + 474000 would tune a card to 474000 kHz. The library
// calls this one, for a program's symbol comes before a shared library's. A message with a longer number is
// malformed and gets no answer.
#include <algorithm>
#include <cstdint>

#include "headend/firmware/snmp/net_snmp.h"

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
