// Text as UTF-8: from the encodings of cards and networks, and safe on a terminal.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace base {

inline constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

// From an encoding with its iconv name; kReplacement for each byte that is not in the encoding. nullopt if
// the C library does not have the encoding.
std::optional<std::string> toUtf8(const std::string& encoding, std::string_view bytes);
// GBK is the encoding of the front panel and the alarms. Throws std::runtime_error if the C library has no
// GBK.
std::string utf8OfGbk(std::string_view gbk);
std::string gbkOfUtf8(std::string_view utf8);  // '?' for a byte that is not in GBK

void appendUtf8(std::string& text, char32_t character);

// The UTF-8 text without control, direction and private-use characters; U+FFFD replaces invalid UTF-8.
std::string printable(std::string_view text);

}  // namespace base
