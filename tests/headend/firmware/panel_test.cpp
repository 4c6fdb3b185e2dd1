// The front panel: what firmware and drivers can put on the LCD, how the keys pace the menu's task, and the
// trees at which the menu ends the run. Whole menus are walked in tests/e2e/panel.py.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>

#include "headend/firmware/panel/panel.h"
#include "tests/headend/kernel/rig.h"
#include "tests/headend/scratch.h"

namespace test {
namespace {

using headend::Keypad;
using headend::Lcd;

// ---- The LCD ----

// A row as text, the inverse characters in brackets.
std::string rowOf(const protocol::LcdImage& lcd, int row) {
  std::string text = lcd.text(row);
  std::string inverse;
  for (const protocol::LcdCharacter& c : lcd.characters) {
    if (c.row == row && c.inverse) inverse += fmt::format(" {}", c.x);
  }
  return inverse.empty() ? text : text + " |" + inverse;
}

constexpr int kAnew = -2;  // instead of a column: the whole row

TEST(Panel, DrawsWhatFitsWhereItBelongs) {
  const std::string ka = "\xBF\xA8";  // 卡
  // What; row, column, mask and text of each print; and row 1 then.
  using Texts = std::vector<std::tuple<int, int, u32, std::string>>;
  const std::tuple<const char*, Texts, std::string> drawings[] = {
      {"the last that fits", {{1, 112, 0, ka + "A"}}, "              卡"},
      {"one that does not, and those behind it", {{1, 120, 0, ka + "A"}}, ""},
      {"left of the LCD, above and below it", {{1, -1, 0, "A"}, {-1, 0, 0, "A"}, {4, 0, 0, "A"}}, ""},
      {"a mask by characters, whatever their width", {{1, 0, 0x60000000, "A" + ka + "BC"}}, "A卡BC | 8 24"},
      {"an inverse blank is seen, a blank is not", {{1, 0, 0x80000000, "   "}}, "| 0"},
      {"what is drawn over goes", {{1, 0, 0, ka + ka}, {1, 8, 0, "x"}}, " x卡"},
      {"off the grid it takes both below", {{1, 0, 0, "abc"}, {1, 12, 0, "x"}}, "a x"},
      {"blanks wipe", {{1, 0, ~u32{0}, "abc"}, {1, 8, 0, " "}}, "a c | 0 16"},
      {"a row anew leaves nothing",
       {{1, 120, 0, "a"}, {1, kAnew, 0, std::string(15, 'x') + ka}},
       std::string(15, 'x')},
      {"a byte that is no character", {{1, 0, 0, std::string("A\xFF")}}, "A\uFFFD"},
  };
  for (const auto& [what, texts, wanted] : drawings) {
    SCOPED_TRACE(what);
    Lcd lcd;
    for (const auto& [row, column, mask, gbk] : texts)
      column == kAnew ? lcd.printRow(row, gbk) : lcd.print(row, column, mask, gbk);
    const std::string row = rowOf(lcd.shown(), 1);
    EXPECT_EQ(row.starts_with(" |") ? row.substr(1) : row, wanted);
    for (const int other : {0, 2, 3}) EXPECT_EQ(rowOf(lcd.shown(), other), "");
  }
}

TEST(Panel, EveryCharacterHasItsPixelsFromTheFont) {
  std::map<std::string, std::string> font;  // by code, as in the file
  std::ifstream file(QAM_FONT);
  for (std::string line; std::getline(file, line);)
    font[line.substr(0, line.find(':'))] = line.substr(line.find(':') + 1);
  int drawn = 0;
  const auto draw = [&](const std::string& gbk) {
    Lcd lcd;
    lcd.print(2, 43, 0x80000000, gbk);
    const char32_t character = lcd.shown().characters.at(0).character;
    if (character == 0xFFFD) return;
    ++drawn;
    std::string glyph = font.at(fmt::format("{:04X}", u32{character}));
    // A narrow one fills half of the cell unless it is ASCII.
    const int width = character < 0x80 ? 8 : 16;
    for (std::size_t at = 2; width == 16 && glyph.size() < 64; at += 4) glyph.insert(at, "00");
    std::string shown;  // in the notation of the font's file
    for (int pixel = 0; pixel < width * 16; pixel += 4) {
      int digit = 0;
      for (int x = pixel % width; x < pixel % width + 4; ++x)
        digit = digit << 1 | (lcd.shown().pixel(43 + x, 32 + pixel / width) ? 0 : 1);
      shown += fmt::format("{:X}", digit);
    }
    EXPECT_EQ(shown, glyph) << fmt::format("{:04X}", u32{character});
  };
  for (char ascii = 0x21; ascii < 0x7F; ++ascii) draw({ascii});
  for (int high = 0xA1; high <= 0xF7; ++high) {
    for (int low = 0xA1; low <= 0xFE; ++low) draw({static_cast<char>(high), static_cast<char>(low)});
  }
  EXPECT_EQ(drawn, 94 + 7445);  // GB 2312 has 682 signs and 6763 ideographs
}

// ---- The keys ----

TEST(Panel, PaceTheTaskThatScansThemAndEndAMenuThatIsNotUsed) {
  Rig rig(freeCalls());
  Keypad keys(rig.kernel, kSecond);
  rig.kernel.spawn("scans", 10, [&] {
    for (;;) {
      const Nanos before = rig.kernel.now();
      const int key = keys.scan();
      const Nanos took = rig.kernel.now() - before;
      if (key != chassis::kKeyNone) rig.note(fmt::format("{} at {} took {}", key, before / kMs, took / kMs));
      EXPECT_LE(took, 10 * kMs);
    }
  });
  const auto press = [&](chassis::PanelKey key) { EXPECT_TRUE(keys.press(key)); };
  rig.kernel.at(2005 * kMs, [&] {
    press(chassis::kKeyUp);
    press(chassis::kKeyDown);
  });
  rig.kernel.at(3000 * kMs, [&] { press(chassis::kKeyConfirm); });
  rig.runUntil(9 * kSecond);
  EXPECT_EQ(rig.story,
            (Story{"3 at 2010 took 0", "4 at 2010 took 0", "1 at 3000 took 0", "255 at 3990 took 10"}));

  for (std::size_t i = 0; i < Keypad::kWaiting; ++i) press(chassis::kKeyUp);
  EXPECT_FALSE(keys.press(chassis::kKeyUp));
}

// ---- The menu ----

using chassis::item_t;

// A panel with one card.
struct MenuRig {
  explicit MenuRig(const item_t* tree) {
    panel.registerRoot({.flag = chassis::kItemLast, .submenu = tree, .en = {"card 1"}});
    panel.start();
  }
  std::string screen() {
    std::string rows;
    for (int row = 0; row < protocol::kLcdRows; ++row) rows += panel.shown().markedText(row) + "/";
    return rows;
  }

  Rig rig;
  Scratch folder;
  headend::Flash flash{folder.path};
  chassis::card card{};
  std::optional<protocol::Words> fault;
  bool kept = true;
  std::vector<headend::AlarmRecord> alarms;
  headend::MenuEngine::Firmware firmware = {
      .card = [this](int) { return &card; },
      .fault = [this](int) { return fault; },
      .recordKept = [this](int) { return kept; },
      .text = [](int, u32) { return "1"; },
      .alarms = [this] { return std::cref(alarms); },
      .stop = [this](const std::string& text) { rig.kernel.fail(text); }};
  headend::Panel panel{rig.kernel, flash, 5 * kSecond, firmware, [](const std::string&) {}};
};

TEST(Panel, ATreeThatCannotBeWalkedEndsTheRunAndIsNamed) {
  const std::vector<item_t> endless(headend::MenuEngine::kLongestTable + 1);
  const item_t unhandled = {.flag = chassis::kItemHandler | chassis::kItemLast, .en = {"Own"}};
  for (const auto& [tree, why] :
       {std::pair{endless.data(), "menu: the table below 'card 1' has no end mark in 64 items"},
        std::pair{&unhandled, "menu of slot 1: item 'Own' names no handler"}}) {
    MenuRig menu(tree);
    menu.panel.keys.press(chassis::kKeyConfirm);
    menu.panel.keys.press(chassis::kKeyConfirm);
    menu.rig.runUntil(kSecond);
    EXPECT_EQ(menu.rig.kernel.fatalError(), why);
  }
}

TEST(Panel, MarksWhatIsWrongAndTheCursorStaysOnItsAlarm) {
  const item_t text = {.flag = chassis::kItemText | chassis::kItemLast, .en = {"a label that is lo"}};
  const item_t table = {.flag = chassis::kItemLast, .submenu = &text, .en = {"Table"}};
  MenuRig menu(&table);
  const auto raise = [&menu](u8 number) {
    headend::AlarmRecord& raised = menu.alarms.emplace_back();
    raised.number = raised.alarm.Slot = number;
    std::strcpy(raised.alarm.StrEnTitle, "Title");
    std::strcpy(raised.alarm.StrEnTrap, "one two three four five");
  };
  const auto nothing = [] {};
  const std::string rest = "/ Language English/ Alarms      none/";
  const std::string item = " Table          */>a label that i 1///";
  // What happens; the keys then, by their codes; and the screen two seconds later.
  const std::tuple<std::function<void()>, std::string, std::string> steps[] = {
      {[&] { menu.kept = false; }, "", " Headend/>card 1         *" + rest},
      {nothing, "11", item},
      {[&] { menu.fault = protocol::nameOf(protocol::CardState::kHung).words; }, "", " card 1/ hung///"},
      {nothing, "12", " Headend/>card 1         !" + rest},
      {nothing, "3641", " Alarms/ none///"},
      {[&] { raise(1), raise(2); }, "", " Alarms/>3 Title/ 2 Title//"},
      {[&] { raise(3); }, "4", " Alarms/ 4 Title/ 3 Title/>2 Title/"},
      {nothing, "13", " Title         ↑/ Type           0/ one two three/>four five/"},
      {[&] { menu.alarms.clear(), menu.fault.reset(); }, "", " Alarms/ none///"},
      {nothing, "5411", item},
      {nothing, "", item},
      {nothing, "", " Headend/>card 1         *" + rest}};
  Nanos at = 0;
  for (const auto& [happens, keys, wanted] : steps) {
    menu.rig.kernel.at(at += 100 * kMs, [&menu, &happens = happens, &keys = keys] {
      happens();
      for (const char key : keys) menu.panel.keys.press(static_cast<chassis::PanelKey>(key - '0'));
    });
    menu.rig.kernel.at(at += 1900 * kMs, [&menu, &wanted = wanted] { EXPECT_EQ(menu.screen(), wanted); });
  }
  menu.rig.runUntil(at + kMs);
}

}  // namespace
}  // namespace test
