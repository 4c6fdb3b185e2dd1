#include "conformance/seen.h"

#include <cstdio>
#include <cstring>

namespace conformance {

Seen& Seen::next() {
  return *this << (text_[0] == 0 ? "" : " ");
}

Seen& Seen::operator<<(const char* text) {
  const std::size_t used = std::strlen(text_);
  std::snprintf(text_ + used, kSize - used, "%s", text);
  return *this;
}

Seen& Seen::operator<<(int number) {
  char digits[12];
  std::snprintf(digits, sizeof digits, "%d", number);
  return *this << digits;
}

Seen& Seen::addTicks(int ticks, int wanted) {
  return *this << (ticks == wanted + 1 ? wanted : ticks) << " ticks";
}

bool Seen::operator==(const char* expected) const {
  const std::size_t length = std::strlen(expected);
  return std::strlen(text_) == length && std::memcmp(text_, expected, length) == 0;
}

}  // namespace conformance
