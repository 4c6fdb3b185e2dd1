// Text as UTF-8: from the encodings that cards and networks use, and safe on a terminal.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace base {

inline constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

// From an encoding as iconv names it; kReplacement for each byte that the encoding does not have. Nothing
// when the C library does not know the encoding.
std::optional<std::string> toUtf8(const std::string& encoding, std::string_view bytes);
// What is shown on the front panel and stands in alarms. Throws std::runtime_error where the C library has no
// GBK.
std::string utf8OfGbk(std::string_view gbk);
std::string gbkOfUtf8(std::string_view utf8);  // '?' for a byte that GBK does not have

void appendUtf8(std::string& text, char32_t character);

// The UTF-8 text without control, direction and private-use characters; U+FFFD stands for what is no UTF-8.
std::string printable(std::string_view text);

}  // namespace base
