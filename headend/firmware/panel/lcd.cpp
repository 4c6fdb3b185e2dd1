#include "headend/firmware/panel/lcd.h"

#include <algorithm>
#include <span>
#include <string>

namespace headend {
namespace {

constexpr int kRowHeight = protocol::kLcdHeight / protocol::kLcdRows;
constexpr int kNarrow = 8, kWide = 16;
constexpr u32 kFirstOfMask = 0x80000000;
constexpr char16_t kReplacement = 0xFFFD;
constexpr u16 kBox[kRowHeight] = {0xFFFF, 0x8001, 0x8001, 0x8001, 0x8001, 0x8001, 0x8001, 0x8001,
                                  0x8001, 0x8001, 0x8001, 0x8001, 0x8001, 0x8001, 0x8001, 0xFFFF};

int widthOf(char32_t code) {
  return code < 0x80 ? kNarrow : kWide;
}

// Removes the next character from a text in GBK and returns it. The text must not be empty.
u16 takeCode(std::string_view& text) {
  const auto first = static_cast<u8>(text[0]);
  const bool isPair = first >= 0x80 && text.size() > 1;
  const u16 code = isPair ? static_cast<u16>(first << 8 | static_cast<u8>(text[1])) : first;
  text.remove_prefix(isPair ? 2 : 1);
  return code;
}

int widthOf(std::string_view gbk) {
  int width = 0;
  while (!gbk.empty()) width += widthOf(takeCode(gbk));
  return width;
}

// Null if the font does not have it.
const Glyph* findGlyph(u16 code) {
  const std::span<const Glyph> glyphs(kGlyphs, kGlyphCount);
  const auto at = std::ranges::lower_bound(glyphs, code, {}, &Glyph::code);
  return at != glyphs.end() && at->code == code ? &*at : nullptr;
}

}  // namespace

std::string_view cutToFit(std::string_view gbk, int width) {
  std::string_view rest = gbk;
  while (!rest.empty()) {
    std::string_view next = rest;
    width -= widthOf(takeCode(next));
    if (width < 0) break;
    rest = next;
  }
  return gbk.substr(0, gbk.size() - rest.size());
}

void Lcd::print(int row, int column, u32 mask, std::string_view gbk) {
  if (row < 0 || row >= protocol::kLcdRows || column < 0) return;
  int x = column;
  for (; !gbk.empty(); mask <<= 1) {
    const u16 code = takeCode(gbk);
    if (x + widthOf(code) > protocol::kLcdWidth) return;
    draw(row, x, code, (mask & kFirstOfMask) != 0);
    x += widthOf(code);
  }
}

void Lcd::printRow(int row, std::string_view left, std::string_view right, bool inverse) {
  if (row < 0 || row >= protocol::kLcdRows) return;
  erase(row, 0, protocol::kLcdWidth);
  const int room = protocol::kLcdWidth - widthOf(right);
  left = cutToFit(left, right.empty() ? room : room - kNarrow);
  const int between = std::max(0, room - widthOf(left));
  const std::string blanks(static_cast<std::size_t>(between / kNarrow), ' ');
  print(row, 0, inverse ? ~u32{0} : 0, std::string(left) + blanks + std::string(right));
}

void Lcd::draw(int row, int x, u16 code, bool inverse) {
  const int width = widthOf(code);
  erase(row, x, x + width);
  const Glyph* glyph = findGlyph(code);
  const u16* pixels = glyph == nullptr ? kBox : glyph->rows;
  for (int line = 0; line < kRowHeight; ++line) {
    for (int i = 0; i < width; ++i) {
      const bool lit = ((pixels[line] >> (15 - i)) & 1) != 0;
      if (lit == inverse) continue;
      const int at = (row * kRowHeight + line) * protocol::kLcdWidth + x + i;
      shown_.pixels[static_cast<std::size_t>(at) / 8] |= static_cast<u8>(0x80 >> at % 8);
    }
  }
  const char16_t character = glyph == nullptr ? kReplacement : glyph->character;
  if (character == u' ' && !inverse) return;
  const protocol::LcdCharacter drawn{static_cast<u8>(row), static_cast<u8>(x), inverse, character};
  const auto place = [](const protocol::LcdCharacter& c) { return std::pair(c.row, c.x); };
  auto& all = shown_.characters;
  all.insert(std::ranges::upper_bound(all, place(drawn), {}, place), drawn);
}

// Removes the characters of which a part is erased; their other pixels stay, as on a real LCD.
void Lcd::erase(int row, int from, int to) {
  for (int line = row * kRowHeight; line < (row + 1) * kRowHeight; ++line) {
    for (int x = from; x < to; ++x) {
      const int at = line * protocol::kLcdWidth + x;
      shown_.pixels[static_cast<std::size_t>(at) / 8] &= static_cast<u8>(~(0x80 >> at % 8));
    }
  }
  std::erase_if(shown_.characters, [&](const protocol::LcdCharacter& c) {
    return c.row == row && c.x < to && c.x + widthOf(c.character) > from;
  });
}

}  // namespace headend
