// A terminal's screen as a model: what the panel draws on and its terminal copies out. Every character comes
// through here, so that none reaches the terminal that would act on it. How many columns a character takes is
// the locale's to say (wcwidth), for the terminal's library asks it too.
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

  // Draws a character whose left half is still on the screen and returns its columns: 0 where it has none
  // (controls and marks of direction, combining marks) or no room before `end`, which no column beyond the
  // screen's width extends. What it covers of other characters becomes blank.
  int put(int x, int y, wchar_t character, Look look, int end);

  // UTF-8 from a column on, cut by whole characters before `end`. Returns the column behind it.
  int text(int x, int y, std::string_view utf8, Look look, int end);
  int text(int x, int y, std::string_view utf8, Look look = {}) { return text(x, y, utf8, look, width_); }

  std::string line(int y) const;  // as UTF-8, for tests; blanks at its end left out

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
