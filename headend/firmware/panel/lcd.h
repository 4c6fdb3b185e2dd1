// The front panel's LCD: 128 x 64 pixels, which firmware and drivers fill with four rows of text. It keeps
// both the pixels and which character stands where.
#pragma once

#include <string>
#include <string_view>

#include "protocol/panel.h"

namespace headend {

class Lcd {
 public:
  // Everything dark.
  void clear() { shown_ = {}; }

  // Draws a text in GBK on row 0..3 from a pixel column on. Bit 31 of the mask inverts the first character,
  // bit 30 the second, and so on. A character that would reach past the right edge is left out, and those
  // behind it. Texts on other rows or left of the LCD are ignored.
  void print(int row, int column, u32 mask, std::string_view gbk);

  // The row anew, with a text at its left edge and one at its right. What does not fit on it is cut off.
  void printRow(int row, std::string_view left, std::string_view right = {}, bool inverse = false);

  const protocol::LcdImage& shown() const { return shown_; }

 private:
  void draw(int row, int x, u16 code, bool inverse);
  void erase(int row, int from, int to);

  protocol::LcdImage shown_;
};

// Pixels that a text in GBK takes.
int widthOf(std::string_view gbk);

}  // namespace headend
