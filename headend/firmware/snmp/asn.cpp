// What the agent does for a card's handlers (platform/agent.h): the order of names, and values from their
// encoding.
#include <algorithm>
#include <compare>

#include "headend/firmware/snmp/ber.h"
#include "platform/agent.h"

namespace chassis {
namespace {

// The content of the element of this type at the beginning of `*datalength` bytes, which is set to the bytes
// after it.
std::optional<std::span<u8>> takeElement(u8 wanted, u8* data, int* datalength, u8* type) {
  if (*datalength <= 0) return std::nullopt;
  *type = data[0];
  if (*type != wanted) return std::nullopt;
  const auto content = headend::berContent({data + 1, static_cast<std::size_t>(*datalength) - 1});
  if (content) *datalength -= static_cast<int>(content->data() + content->size() - data);
  return content;
}

}  // namespace

int compare(const u32* name1, int length1, const u32* name2, int length2) {
  const auto order = std::lexicographical_compare_three_way(name1, name1 + length1, name2, name2 + length2);
  return std::is_lt(order) ? -1 : std::is_gt(order) ? 1 : 0;
}

u8* asn_parse_string(u8* data, int* datalength, u8* type, u8* string, int* strlength) {
  int left = *datalength;
  const auto content = takeElement(ASN_OCTET_STR, data, &left, type);
  const auto room = static_cast<std::size_t>(*strlength);
  if (!content || content->size() > room) return nullptr;
  std::ranges::copy(*content, string);
  if (content->size() < room) string[content->size()] = 0;
  *datalength = left;
  *strlength = static_cast<int>(content->size());
  return content->data() + content->size();
}

u8* asn_parse_unsigned_int(u8* data, int* datalength, u8* type, u32* number, int numberSize) {
  if (numberSize != static_cast<int>(sizeof *number)) return nullptr;
  int left = *datalength;
  const auto content = takeElement(ASN_INTEGER, data, &left, type);
  if (!content || content->empty() || content->size() > headend::kMostIntegerOctets) return nullptr;
  *datalength = left;
  *number = static_cast<u32>(headend::berInteger(*content));
  return content->data() + content->size();
}

}  // namespace chassis
