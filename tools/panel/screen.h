// A model of a terminal's screen: the panel draws on it and its terminal copies it. Every character passes
// through here, so that no control character reaches the terminal. The locale gives the columns of a
// character (wcwidth), because the terminal's library uses it too.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/types.h"

namespace tools {

struct Look {
  enum class Colour : u8 { kPlain, kGood, kWarning, kBad };
  Colour colour = Colour::kPlain;
  bool inverse = false;
  bool bold = false;

  bool operator==(const Look&) const = default;
};

class Screen {
 public:
  struct Cell {
    wchar_t character = L' ';  // kCovered: the right half of a wide character
    Look look;
    bool operator==(const Cell&) const = default;
  };
  static constexpr wchar_t kCovered = L'\0';

  Screen(int width, int height);

  int width() const { return width_; }
  int height() const { return height_; }
  const Cell& at(int x, int y) const { return cells_[index(x, y)]; }

  // Draws a character whose left half is still on the screen and returns its columns: 0 if it has none
  // (controls, direction marks, combining marks) or does not fit before `end` and the screen's width. Other
  // characters that it partly covers become blank.
  int put(int x, int y, wchar_t character, Look look, int end);

  // Draws UTF-8 from a column on, cut by whole characters before `end`. Returns the column after it.
  int text(int x, int y, std::string_view utf8, Look look, int end);
  int text(int x, int y, std::string_view utf8, Look look = {}) { return text(x, y, utf8, look, width_); }

  std::string line(int y) const;  // as UTF-8, for tests; without blanks at its end

  bool operator==(const Screen&) const = default;

 private:
  std::size_t index(int x, int y) const {
    return static_cast<std::size_t>(y) * static_cast<std::size_t>(width_) + static_cast<std::size_t>(x);
  }
  bool isCovered(int x, int y) const { return x < width_ && at(x, y).character == kCovered; }

  int width_;
  int height_;
  std::vector<Cell> cells_;
};

}  // namespace tools
