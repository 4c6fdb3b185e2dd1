// A screen of the menu: a heading, and rows of which one is chosen. All texts are GBK.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "headend/firmware/panel/lcd.h"

namespace headend {

struct MenuRow {
  std::string left;
  std::string right{};
  std::string below{};   // a second line of this row
  std::uint64_t id = 0;  // not 0: the cursor stays on this row if its place in the list changes
  bool operator==(const MenuRow&) const = default;
};

struct MenuScreen {
  std::string heading;
  std::string mark{};  // at the right of the heading
  std::vector<MenuRow> rows;
  bool hasCursor = true;
  bool operator==(const MenuScreen&) const = default;
};

// Draws as many rows as fit, with the chosen one (from 0) inverse and among them. Arrows in the heading show
// that the list continues above or below.
void draw(Lcd& lcd, const MenuScreen& screen, int chosen);

}  // namespace headend
