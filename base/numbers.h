// Parses numbers. All input of operators and files is parsed by these functions.
#pragma once

#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <string_view>
#include <type_traits>

#include "platform/types.h"

namespace base {

// The whole text as a number from 0 to `most`; nullopt for other texts, including a sign or blanks.
template <typename T>
std::optional<T> parseDigits(std::string_view text, int radix, T most) {
  static_assert(std::is_unsigned_v<T>);
  T value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, radix);
  const bool isWhole = error == std::errc() && end == text.data() + text.size();
  return isWhole && value <= most ? std::optional(value) : std::nullopt;
}

// Decimal digits only.
template <typename T = u32>
std::optional<T> parseDecimal(std::string_view text, T most = std::numeric_limits<T>::max()) {
  return parseDigits(text, 10, most);
}

// Decimal, or hexadecimal after 0x.
template <typename T = u32>
std::optional<T> parseNumber(std::string_view text, T most = std::numeric_limits<T>::max()) {
  const bool isHex = text.starts_with("0x") || text.starts_with("0X");
  return parseDigits(text.substr(isHex ? 2 : 0), isHex ? 16 : 10, most);
}

// With a fraction; finite.
inline std::optional<double> parseReal(std::string_view text) {
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  const bool isWhole = error == std::errc() && end == text.data() + text.size();
  return isWhole && std::isfinite(value) ? std::optional(value) : std::nullopt;
}

}  // namespace base
