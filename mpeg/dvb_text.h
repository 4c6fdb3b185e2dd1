// Text of DVB tables (EN 300 468 annex A) as UTF-8 that is safe on a terminal.
#pragma once

#include <span>
#include <string>

#include "platform/types.h"

namespace mpeg {

// The text without its emphasis marks, line breaks as spaces. Bytes that are not in its character table, and
// texts of an unknown table, are replaced with U+FFFD.
std::string dvbText(std::span<const u8> text);

}  // namespace mpeg
