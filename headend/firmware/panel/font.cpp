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

std::string gbkOf(std::u16string_view text) {
  const std::span<const Glyph> glyphs(kGlyphs, kGlyphCount);
  std::string gbk;
  for (const char16_t character : text) {
    const auto glyph =
        std::find_if(glyphs.begin(), glyphs.end(), [&](const Glyph& g) { return g.character == character; });
    const u16 code = glyph == glyphs.end() ? u16{'?'} : glyph->code;
    if (code >= 0x80) gbk += static_cast<char>(code >> 8);
    gbk += static_cast<char>(code & 0xFF);
  }
  return gbk;
}

}  // namespace headend
