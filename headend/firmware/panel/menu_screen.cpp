#include "headend/firmware/panel/menu_screen.h"

#include <algorithm>
#include <string_view>

#include "base/text.h"

namespace headend {
namespace {

constexpr int kLinesBelowHeading = protocol::kLcdRows - 1;

struct MenuLine {
  std::string_view left, right;
  bool isChosen;
};

}  // namespace

void draw(Lcd& lcd, const MenuScreen& screen, int chosen) {
  std::vector<MenuLine> lines;
  int first = 0;
  for (int i = 0; i < static_cast<int>(screen.rows.size()); ++i) {
    const MenuRow& row = screen.rows[static_cast<std::size_t>(i)];
    const bool isChosen = screen.hasCursor && i == chosen;
    lines.push_back({row.left, row.right, isChosen});
    if (!row.below.empty()) lines.push_back({row.below, {}, isChosen});
    if (isChosen) first = std::max(0, static_cast<int>(lines.size()) - kLinesBelowHeading);
  }
  const int end = std::min(first + kLinesBelowHeading, static_cast<int>(lines.size()));
  std::string marks = screen.mark;
  if (first > 0) marks += base::gbkOfUtf8("↑");
  if (end < static_cast<int>(lines.size())) marks += base::gbkOfUtf8("↓");

  lcd.clear();
  lcd.printRow(0, screen.heading, marks);
  for (int i = first; i < end; ++i) {
    const MenuLine& line = lines[static_cast<std::size_t>(i)];
    lcd.printRow(1 + i - first, line.left, line.right, line.isChosen);
  }
}

}  // namespace headend
