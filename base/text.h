// Text as UTF-8: from the encodings of cards and networks, and safe on a terminal.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "platform/types.h"

namespace base {

// GBK is the encoding of the front panel and the alarms. Throws std::runtime_error if the C library has no
// GBK.
std::string utf8OfGbk(std::string_view gbk);
std::string gbkOfUtf8(std::string_view utf8);  // '?' for a byte that is not in GBK

void appendUtf8(std::string& text, char32_t character);

// The UTF-8 text without control, direction and private-use characters; U+FFFD replaces invalid UTF-8.
std::string printable(std::string_view text);

// Text of DVB tables (EN 300 468 annex A) without its emphasis marks and otherwise printable, line breaks as
// spaces. Bytes that are not in its character table, and texts of an unknown table, are replaced with U+FFFD.
std::string dvbText(std::span<const u8> text);

}  // namespace base
