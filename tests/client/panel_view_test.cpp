// What stands on the terminal for what the panel knows: places, widths, what is cut, and what never gets
// there.
#include "tools/panel/panel_view.h"

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
    state_.rf = {"     MHz", "1.1  554.0", "1.2  562.0"};
  }

  // A row of the LCD begins in the second row and column, within its frame.
  void write(u8 row, u8 x, std::u32string_view text, bool inverse = false) {
    for (const char32_t c : text) {
      state_.lcd->characters.push_back({.row = row, .x = x, .inverse = inverse, .character = c});
      x = static_cast<u8>(x + (c < 0x80 ? 8 : 16));
    }
  }

  std::string line(int y, int width = 80, int height = 24) const {
    return drawPanel(state_, width, height).line(y);
  }

  // The row in which a text stands; -1: in none.
  static int rowOf(const Screen& screen, std::string_view text) {
    for (int y = 0; y < screen.height(); ++y) {
      if (screen.line(y).find(text) != std::string::npos) return y;
    }
    return -1;
  }

  static client::Alarm alarm(u8 slot, std::string title) {
    return {.slot = slot,
            .port = 0,
            .type = 1,
            .happened = 946684800,
            .zhTitle = "输入",
            .zhText = "频点1",
            .enTitle = std::move(title),
            .enText = "ch.1",
            .zhTrap = "",
            .enTrap = ""};
  }

  PanelState state_;
};

TEST_F(PanelView, LcdKeepsItsCells) {
  write(0, 0, U"QAM卡1");
  write(1, 16, U"0554.000");
  write(1, 82, U"MHz");  // units stand between cells
  write(2, 74, U"℃x");   // two cells on the LCD, one column of a terminal
  write(3, 112, U"卡");
  EXPECT_EQ(line(1), "┌────────────────┐  ○ 1 no card");
  EXPECT_EQ(line(2), "│QAM卡1          │  ○ 2 no card");
  EXPECT_EQ(line(3), "│  0554.000 MHz  │  ○ 3 no card");
  EXPECT_EQ(line(4), "│          ℃ x   │  ○ 4 no card");
  EXPECT_EQ(line(5), "│              卡│  ○ 5 no card");
  EXPECT_EQ(line(6), "└────────────────┘  ○ 6 no card");
}

TEST_F(PanelView, InverseIsAnAttribute) {
  write(1, 0, U"卡", true);
  write(1, 16, U"5");
  const Screen screen = drawPanel(state_, 80, 24);
  for (const auto& [x, inverse] : {std::pair(0, false), {1, true}, {2, true}, {3, false}})
    EXPECT_EQ(screen.at(x, 3).look.inverse, inverse) << x;
}

TEST_F(PanelView, NothingOfTheLcdLeavesItsFrame) {
  write(3, 120, U"卡");
  write(4, 0, U"x");
  write(2, 0, U"\x1b\x07\u202E");
  EXPECT_EQ(line(4), "│???             │  ○ 4 no card");
  EXPECT_EQ(line(5), "│                │  ○ 5 no card");
  EXPECT_EQ(line(6), "└────────────────┘  ○ 6 no card");
}

TEST_F(PanelView, NoControlCharacterReachesTheTerminal) {
  const std::string bad = std::string("a\x1b[2J\r\n\x9b", 8) + "\xC2\x9B" + "\u202E\xFFz";
  state_.server = state_.rf[1] = state_.refusal = bad;
  state_.alarms = {alarm(0, bad)};
  state_.cards[0] = bad;
  const Screen screen = drawPanel(state_, 80, 24);
  for (int y = 0; y < screen.height(); ++y) {
    for (int x = 0; x < screen.width(); ++x) {
      const wchar_t c = screen.at(x, y).character;
      EXPECT_TRUE(c == Screen::kCovered || (c >= L' ' && (c < 0x7F || c > 0x9F) && c != 0x202E))
          << x << ',' << y;
    }
  }
  EXPECT_EQ(screen.line(10), "a[2J??z");
}

TEST_F(PanelView, TooSmallSaysWhatItTakes) {
  const std::string fits = line(0, kPanelMinWidth, kPanelMinHeight);
  EXPECT_EQ(fits, "Front panel  127.0.0.1:49160");
  for (const auto& [width, height] : {std::pair(kPanelMinWidth - 1, 24), {80, kPanelMinHeight - 1}}) {
    const Screen screen = drawPanel(state_, width, height);
    EXPECT_EQ(screen.line(0), "Terminal too small: " + std::to_string(width) + "x" + std::to_string(height) +
                                  ", needs 68x18. q quits");
    EXPECT_EQ(screen.line(1), "");
  }
  for (const auto& [width, height] : {std::pair(0, 0), {1, 1}, {5, 40}, {200, 1}})
    drawPanel(state_, width, height);
}

TEST_F(PanelView, AlarmsTakeWhatIsLeft) {
  struct Case {
    const char* name;
    std::size_t rf, alarms;
    const char *lastRf, *firstAlarm, *lastAlarm;
  };
  const Case cases[] = {
      {"room for all", 4, 5, "rf3", "title4", "title0"},
      {"more alarms than room", 4, 40, "rf3", "title39", "... 32 more"},
      {"a long readout leaves three", 25, 40, "... 16 more", "title39", "... 38 more"},
      {"no alarm, a long readout", 25, 0, "... 14 more", "none", "none"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    state_.rf.clear();
    state_.alarms.clear();
    for (std::size_t i = 0; i < c.rf; ++i) state_.rf.push_back("rf" + std::to_string(i));
    for (std::size_t i = 0; i < c.alarms; ++i) state_.alarms.push_back(alarm(1, "title" + std::to_string(i)));
    const Screen screen = drawPanel(state_, 80, 24);
    const int heading = rowOf(screen, "Alarms (UTC)");
    ASSERT_GT(heading, 0);
    EXPECT_EQ(screen.line(heading - 1), c.lastRf);
    EXPECT_NE(screen.line(heading + 1).find(c.firstAlarm), std::string::npos) << screen.line(heading + 1);
    EXPECT_GT(rowOf(screen, c.lastAlarm), heading);
    EXPECT_LT(rowOf(screen, c.lastAlarm), 23);
    EXPECT_EQ(rowOf(screen, "q quit"), 23);
  }
}

TEST_F(PanelView, BothLanguages) {
  state_.cards[0] = "running";
  state_.cards[4] = "config_error";
  state_.alarms = {alarm(4, "Input lost")};
  state_.silentSeconds = 3;
  const auto expect = [&](std::initializer_list<const char*> texts) {
    const Screen screen = drawPanel(state_, 80, 24);
    for (const char* text : texts) EXPECT_GE(rowOf(screen, text), 0) << text;
  };
  expect({"no answer for 3 s", "● 1 running", "○ 2 no card", "● 5 config_error", "● alarm 1",
          "slot 5  2000-01-01 00:00:00  Input lost  ch.1"});
  state_.language = PanelState::Language::kChinese;
  expect({"3 秒无应答", "● 1 运行", "○ 2 无卡", "● 5 配置错误", "● 告警 1",
          "槽位 5  2000-01-01 00:00:00  输入  频点1"});
}

TEST_F(PanelView, WideCharactersAreCutWhole) {
  Screen screen(5, 2);
  EXPECT_EQ(screen.text(0, 0, "xxxx卡x"), 4);
  EXPECT_EQ(screen.text(0, 1, "xxx卡x"), 5);
  EXPECT_EQ(screen.line(0), "xxxx");
  EXPECT_EQ(screen.line(1), "xxx卡");
}

TEST_F(PanelView, PixelsWhereThereIsRoom) {
  const auto light = [&](int x, int y) {
    auto& byte = state_.lcd->pixels[static_cast<std::size_t>(y * client::kLcdWidth + x) / 8];
    byte = static_cast<u8>(byte | 0x80 >> x % 8);
  };
  light(0, 0);
  light(127, 62);
  light(127, 63);
  state_.pixels = true;
  EXPECT_EQ(rowOf(drawPanel(state_, 80, 24), "(too small for pixels)"), 23);
  const Screen braille = drawPanel(state_, 90, 30);
  EXPECT_EQ(braille.at(1, 2).character, L'⠁');
  EXPECT_EQ(braille.at(64, 17).character, L'⢠');
  EXPECT_EQ(braille.at(65, 17).character, L'│');
  const Screen blocks = drawPanel(state_, 154, 46);
  EXPECT_EQ(blocks.at(1, 2).character, L'▀');
  EXPECT_EQ(blocks.at(128, 33).character, L'█');
  EXPECT_EQ(blocks.at(129, 33).character, L'│');
}

TEST_F(PanelView, OverdrawnHalvesOfWideCharactersGo) {
  Screen screen(6, 1);
  screen.text(0, 0, "卡卡");
  EXPECT_EQ(screen.put(1, 0, L'x', {}, 6), 1);
  EXPECT_EQ(screen.line(0), " x卡");
  EXPECT_EQ(screen.put(1, 0, L'卡', {}, 6), 2);
  EXPECT_EQ(screen.line(0), " 卡");
}

}  // namespace
}  // namespace tools
