// What the terminal shows of the panel's state: places, widths, what is cut, and what never gets
// there.
#include "tools/panel/panel_view.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <clocale>

namespace tools {
namespace {

class PanelView : public ::testing::Test {
 protected:
  PanelView() {
    std::setlocale(LC_CTYPE, "C.UTF-8");
    state_.server = "127.0.0.1:49160";
    state_.lcd.emplace();
  }

  void write(u8 row, u8 x, std::u32string_view text, bool inverse = false) {
    for (const char32_t c : text) {
      state_.lcd->characters.push_back({.row = row, .x = x, .inverse = inverse, .character = c});
      x = static_cast<u8>(x + (c < 0x80 ? 8 : 16));
    }
  }
  // That many lines of RF readout and alarms, numbered from 0 on.
  void fill(std::size_t rf, u8 alarms) {
    state_.rf.clear();
    state_.alarms.clear();
    for (std::size_t i = 0; i < rf; ++i) state_.rf.push_back(fmt::format("rf{}", i));
    for (u32 i = 0; i < alarms; ++i)
      state_.alarms.push_back(
          {.slot = 4, .happened = 946684800 + i, .zhTitle = "输入", .enTitle = "Input lost"});
  }
  static void expectLines(const Screen& screen, int y, std::initializer_list<const char*> lines) {
    for (const char* line : lines) EXPECT_EQ(screen.line(y++), line);
  }

  PanelState state_;
};

TEST_F(PanelView, EverythingHasItsPlaceInTheSmallestTerminalAndNoControlCharacterAny) {
  write(0, 0, U"QAM卡1");
  write(1, 16, U"0554.000", true);
  write(1, 82, U"MHz");  // units are between cells
  write(2, 0, U"\x1b\x07\u202E");
  write(2, 74, U"℃x");     // two cells on the LCD, one column of a terminal
  write(3, 112, U"卡卡");  // no room for the second one, and there is no fifth row
  write(4, 0, U"x");
  const std::string bad = std::string("a\x1b[2J\r\n\x9b", 8) + "\xC2\x9B" + "\u202E\xFFz";
  state_.cards = {"running", "", bad, "", "config_error", ""};
  fill(25, 5);
  state_.refusal = state_.rf[1] = state_.alarms[3].enTitle = bad;
  const Screen screen = drawPanel(state_, kPanelMinWidth, kPanelMinHeight);
  expectLines(screen, 0,
              {
                  "Front panel  127.0.0.1:49160   a[2J??z",
                  "┌────────────────┐  ● 1 running",
                  "│QAM卡1          │  ○ 2 no card",
                  "│  0554.000 MHz  │  ● 3 a[2J??z",
                  "│???       ℃ x   │  ○ 4 no card",
                  "│              卡│  ● 5 config error",
                  "└────────────────┘  ○ 6 no card",
                  "↑ ↓ ← → Enter Esc   ● alarm 5",
                  "",
              });
  expectLines(screen, 9, {"rf0", "a[2J??z", "rf2", "... 22 more", "Alarms (UTC)"});
  expectLines(screen, 14,
              {"slot 5  2000-01-01 00:00:04  Input lost", "slot 5  2000-01-01 00:00:03  a[2J??z",
               "... 3 more", "l 中文   p pixels   q quit"});
  for (const auto& [x, inverse] : {std::pair(2, false), {3, true}, {10, true}, {11, false}})
    EXPECT_EQ(screen.at(x, 3).look.inverse, inverse) << x;
  expectLines(drawPanel(state_, 67, 18), 0, {"Terminal too small: 67x18, needs 68x18. q quits", ""});
  expectLines(drawPanel(state_, 68, 17), 0, {"Terminal too small: 68x17, needs 68x18. q quits", ""});
  for (const auto& [width, height] : {std::pair(0, 0), {1, 1}, {5, 40}, {200, 1}})
    drawPanel(state_, width, height);
}

TEST_F(PanelView, AlarmsTakeWhatTheReadoutLeavesAndThreeLinesAtLeast) {
  state_.language = chassis::Language::kChinese;
  state_.silentSeconds = 3;
  fill(4, 5);
  expectLines(drawPanel(state_, 80, 24), 0, {"前面板  127.0.0.1:49160   3 秒无应答"});
  expectLines(drawPanel(state_, 80, 24), 12, {"rf3", "告警 (UTC)", "槽位 5  2000-01-01 00:00:04  输入"});
  expectLines(drawPanel(state_, 80, 24), 18, {"槽位 5  2000-01-01 00:00:00  输入", ""});
  fill(25, 0);
  expectLines(drawPanel(state_, 80, 24), 20, {"... 还有 14 条", "告警 (UTC)", "无"});
}

TEST_F(PanelView, PixelsWhereThereIsRoom) {
  state_.lcd->pixels.front() = 0x80;                                           // the first pixel
  state_.lcd->pixels[62 * 16 + 15] = state_.lcd->pixels[63 * 16 + 15] = 0x01;  // the last one, and that above
  state_.pixels = true;
  expectLines(drawPanel(state_, 89, 30), 29, {"l 中文   p pixels   q quit  (too small for pixels)"});
  const Screen braille = drawPanel(state_, 90, 30);
  EXPECT_EQ(braille.at(1, 2).character, L'⠁');
  EXPECT_EQ(braille.at(64, 17).character, L'⢠');
  EXPECT_EQ(drawPanel(state_, 153, 46).at(1, 2).character, L'⠁');
  const Screen blocks = drawPanel(state_, 154, 46);
  EXPECT_EQ(blocks.at(1, 2).character, L'▀');
  EXPECT_EQ(blocks.at(128, 33).character, L'█');
}

TEST_F(PanelView, WideCharactersAreCutAndOverdrawnWhole) {
  Screen screen(5, 1);
  EXPECT_EQ(screen.text(0, 0, "xxxx卡x"), 4);
  expectLines(screen, 0, {"xxxx"});
  EXPECT_EQ(screen.text(0, 0, "x卡卡x"), 5);
  EXPECT_EQ(screen.put(2, 0, L'x', {}, 5), 1);
  expectLines(screen, 0, {"x x卡"});
  EXPECT_EQ(screen.put(2, 0, L'卡', {}, 5), 2);
  expectLines(screen, 0, {"x 卡"});
}

}  // namespace
}  // namespace tools
