// The panel's characters: ASCII, 8 x 16 pixels, and GB 2312, 16 x 16. The build generates the table.
#pragma once

#include <cstddef>

#include "platform/types.h"

namespace headend {

struct Glyph {
  u16 code;            // ASCII, or the two bytes of GBK
  char16_t character;  // the same in Unicode
  u16 rows[16];        // from the top, the left pixel in the high bit
};

extern const Glyph kGlyphs[];  // by code
extern const std::size_t kGlyphCount;

}  // namespace headend
