// The panel's characters: ASCII, 8 x 16 pixels, and GB 2312, 16 x 16. The build generates the table.
#pragma once

#include <cstddef>
#include <string_view>

#include "platform/types.h"

namespace headend {

struct Glyph {
  u16 code;            // ASCII, or the two bytes of GBK
  char16_t character;  // the same in Unicode
  u16 rows[16];        // from the top, the left pixel in the high bit

  int width() const { return code < 0x80 ? 8 : 16; }
};

extern const Glyph kGlyphs[];  // by code
extern const std::size_t kGlyphCount;

const Glyph* findGlyph(u16 code);  // null if the font does not have it

// Removes the next character from a text in GBK and returns it. The text must not be empty.
u16 takeCode(std::string_view& text);

}  // namespace headend
