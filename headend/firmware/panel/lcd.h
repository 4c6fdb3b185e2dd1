// The front panel's LCD: 128 x 64 pixels. Firmware and drivers write four rows of text. It stores both the
// pixels and the position of each character. And its font: ASCII, 8 x 16 pixels, and GB 2312, 16 x 16.
#pragma once

#include <cstddef>
#include <string_view>

#include "protocol/panel.h"

namespace headend {

struct Glyph {
  u16 code;            // ASCII, or the two bytes of GBK
  char16_t character;  // the same in Unicode
  u16 rows[16];        // from the top, the left pixel in the high bit
};
extern const Glyph kGlyphs[];  // by code; the build generates the table
extern const std::size_t kGlyphCount;

// The beginning of a text in GBK that is at most so many pixels wide, in whole characters.
std::string_view cutToFit(std::string_view gbk, int width);

class Lcd {
 public:
  // Clears all pixels.
  void clear() { shown_ = {}; }

  // Draws a text in GBK on row 0..3, starting at a pixel column. Bit 31 of the mask inverts the first
  // character, bit 30 the second, and so on. A character that would cross the right edge and all characters
  // after it are not drawn. Texts on other rows or left of the LCD are ignored.
  void print(int row, int column, u32 mask, std::string_view gbk);

  // Redraws the row with a text at its left edge and one at its right, and at least 8 pixels between them.
  // The left text is cut to whole characters if there is no room for both, the right one only at the edge.
  void printRow(int row, std::string_view left, std::string_view right = {}, bool inverse = false);

  const protocol::LcdImage& shown() const { return shown_; }

 private:
  void draw(int row, int x, u16 code, bool inverse);
  void erase(int row, int from, int to);

  protocol::LcdImage shown_;
};

}  // namespace headend
