#include "headend/firmware/panel/font.h"

#include <algorithm>
#include <span>

namespace headend {

const Glyph* findGlyph(u16 code) {
  const std::span<const Glyph> glyphs(kGlyphs, kGlyphCount);
  const auto at = std::lower_bound(glyphs.begin(), glyphs.end(), code,
                                   [](const Glyph& glyph, u16 wanted) { return glyph.code < wanted; });
  return at != glyphs.end() && at->code == code ? &*at : nullptr;
}

u16 takeCode(std::string_view& text) {
  const auto first = static_cast<u8>(text[0]);
  const bool isPair = first >= 0x80 && text.size() > 1;
  const u16 code = isPair ? static_cast<u16>(first << 8 | static_cast<u8>(text[1])) : first;
  text.remove_prefix(isPair ? 2 : 1);
  return code;
}

}  // namespace headend
