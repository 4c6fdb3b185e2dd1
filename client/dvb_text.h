// Text of DVB tables (EN 300 468 annex A) as UTF-8 that is safe on a terminal: whatever a network sends, no
// control character comes out. Used for every text that a network or a server made.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "platform/types.h"

namespace client {

// The text without its emphasis marks, line breaks as spaces. Bytes that its character table does not have,
// and texts of a table that nobody here knows, come out with U+FFFD in their place.
std::string dvbText(std::span<const u8> text);

// The UTF-8 text without control, direction and private-use characters; U+FFFD stands for what is no UTF-8.
std::string printable(std::string_view text);

}  // namespace client
