// The front panel: what firmware and drivers can put on the LCD, how the keys pace the menu's task, and the
// menu on a tree that is no card's.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <map>
#include <span>

#include "headend/firmware/panel/menu_engine.h"
#include "platform/address_word.h"
#include "tests/headend/kernel/rig.h"

namespace test {
namespace {

using headend::Keypad;
using headend::Lcd;
using headend::MenuEngine;

// ---- The LCD ----

// A row as text, the inverse characters in brackets.
std::string rowOf(const client::Lcd& lcd, int row) {
  std::string text = lcd.text(row);
  std::string inverse;
  for (const client::LcdCharacter& c : lcd.characters) {
    if (c.row == row && c.inverse) inverse += fmt::format(" {}", c.x);
  }
  return inverse.empty() ? text : text + " |" + inverse;
}

constexpr int kAnew = -2;  // in place of a column: the whole row

struct Drawing {
  const char* what;
  struct Text {
    int row, column;
    u32 mask;
    std::string gbk;
  };
  std::vector<Text> texts;
  std::string wanted;  // of row 1
};

TEST(PanelLcd, DrawsWhatFitsWhereItBelongs) {
  const std::string ka = "\xBF\xA8";  // 卡
  const std::vector<Drawing> drawings = {
      {"from the left edge", {{1, 0, 0, "Ab" + ka}}, "Ab卡"},
      {"the last that fits", {{1, 112, 0, ka + "A"}}, "              卡"},
      {"one that does not, and those behind it", {{1, 120, 0, ka + "A"}}, ""},
      {"seven pixels short", {{1, 121, 0, "A"}}, ""},
      {"left of the LCD, above and below it", {{1, -1, 0, "A"}, {-1, 0, 0, "A"}, {4, 0, 0, "A"}}, ""},
      {"a mask by characters, whatever their width", {{1, 0, 0x60000000, "A" + ka + "BC"}}, "A卡BC | 8 24"},
      {"an inverse blank is seen, a blank is not", {{1, 0, 0x80000000, "   "}}, "| 0"},
      {"what is drawn over goes", {{1, 0, 0, ka + ka}, {1, 8, 0, "x"}}, " x卡"},
      {"off the grid it takes both below", {{1, 0, 0, "abc"}, {1, 12, 0, "x"}}, "a x"},
      {"blanks wipe", {{1, 0, ~u32{0}, "abc"}, {1, 8, 0, " "}}, "a c | 0 16"},
      {"a row anew", {{1, 100, 0, "abc"}, {1, kAnew, 0, "x"}}, "x"},
      {"and what is cut off leaves nothing",
       {{1, 120, 0, "a"}, {1, kAnew, 0, std::string(15, 'x') + ka}},
       std::string(15, 'x')},
      {"a byte that is no character", {{1, 0, 0, std::string("A\xFF")}}, "A\uFFFD"},
  };
  for (const Drawing& drawing : drawings) {
    SCOPED_TRACE(drawing.what);
    Lcd lcd;
    for (const auto& [row, column, mask, gbk] : drawing.texts) {
      if (column == kAnew) {
        lcd.printRow(row, gbk);
      } else {
        lcd.print(row, column, mask, gbk);
      }
    }
    const std::string row = rowOf(lcd.shown(), 1);
    EXPECT_EQ(row.starts_with(" |") ? row.substr(1) : row, drawing.wanted);
    for (const int other : {0, 2, 3}) EXPECT_EQ(rowOf(lcd.shown(), other), "");
  }
}

// What a glyph's cell shows, in the notation of the font's file.
std::string hexOf(const client::Lcd& lcd, int x, int row, int width, bool inverse) {
  std::string hex;
  for (int y = row * 16; y < row * 16 + 16; ++y) {
    for (int digit = 0; digit < width / 4; ++digit) {
      int value = 0;
      for (int bit = 0; bit < 4; ++bit)
        value = value << 1 | (lcd.pixel(x + digit * 4 + bit, y) != inverse ? 1 : 0);
      hex += fmt::format("{:X}", value);
    }
  }
  return hex;
}

TEST(PanelLcd, EveryCharacterHasItsPixelsFromTheFont) {
  std::map<std::string, std::string> font;  // by code, as the file has them
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
    EXPECT_EQ(hexOf(lcd.shown(), 43, 2, width, true), glyph) << fmt::format("{:04X}", u32{character});
  };
  for (char ascii = 0x21; ascii < 0x7F; ++ascii) draw({ascii});
  for (int high = 0xA1; high <= 0xF7; ++high) {
    for (int low = 0xA1; low <= 0xFE; ++low) draw({static_cast<char>(high), static_cast<char>(low)});
  }
  EXPECT_EQ(drawn, 94 + 7445);  // GB 2312 has 682 signs and 6763 ideographs
}

// ---- The keys ----

TEST(PanelKeys, PaceWhoeverScansThemAndEndAMenuThatNobodyUses) {
  Rig rig(freeCalls());
  Keypad keys(rig.kernel);
  keys.timeout(kSecond);
  rig.task("scans", 10, [&] {
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
using chassis::Label;

template <std::size_t N>
constexpr Label label(const char (&text)[N]) {
  Label all{};
  std::copy_n(text, N, all.text);
  return all;
}

struct Step {
  const char* keys;
  const char* screen;
};

// A menu on a kernel of its own, with cards in slots 1 and 3 that have one value each.
class PanelMenu : public ::testing::Test {
 protected:
  static constexpr u32 kValue = 7, kName = 8;

  PanelMenu() {
    self = this;
    for (chassis::card& card : cards_) {
      card.getVar = [](u8 slot, u8, u32 id, u8**) { return id == kValue ? self->values_[slot] : 0; };
      card.setVar = [](u8 slot, u8, u32 id, u32 value) {
        if (id == kValue) self->values_[slot] = value;
        return 0;
      };
    }
  }

  // Shows its item and the port until a key comes, as a card's own screens do.
  static long showsKeys(const item_t* item, u8 slot, u32 port) {
    self->menu_.showHeading(*item);
    self->lcd_.print(2, 0, 0, fmt::format("slot {} port {}", slot, port));
    while (self->keys_.scan() == chassis::kKeyNone) {
    }
    return 0;
  }

  void install(const item_t* tree) {
    item_t root{.flag = item_t::kLast,
                .submenu = tree,
                .zh = label("\xBF\xA8"
                            "1"),
                .en = label("card 1")};
    menu_.registerRoot(root);
    root.val = 2;
    root.zh.text[2] = root.en.text[5] = '3';
    menu_.registerRoot(root);
    root.en.text[0] = '?';  // the menu has its copies
  }

  // Presses keys, one letter each, and tells what the LCD then shows: rows that end at a slash, the chosen
  // one marked.
  std::string screenAfter(const char* letters) {
    static const std::map<char, chassis::PanelKey> kKeys = {
        {'u', chassis::kKeyUp},    {'d', chassis::kKeyDown},    {'l', chassis::kKeyLeft},
        {'r', chassis::kKeyRight}, {'o', chassis::kKeyConfirm}, {'c', chassis::kKeyCancel}};
    for (; *letters != '\0'; ++letters) {
      if (*letters == '.') {
        rig_.kernel.delay(101);  // longer than a refresh
      } else {
        keys_.press(kKeys.at(*letters));
      }
      if (letters[1] == '\0') rig_.kernel.delay(2);
    }
    std::string screen;
    for (int row = 0; row < client::kLcdRows; ++row) {
      const auto& all = lcd_.shown().characters;
      const bool chosen = std::any_of(all.begin(), all.end(), [&](const client::LcdCharacter& c) {
        return c.row == row && c.x == 0 && c.inverse;
      });
      screen += (chosen ? ">" : "") + lcd_.shown().text(row) + '/';
    }
    return screen;
  }

  void run(const std::function<void()>& body) {
    menu_.start();
    rig_.task("operator", MenuEngine::kPriority + 10, [&] {
      rig_.kernel.delay(2);
      body();
      rig_.kernel.stop();
    });
    rig_.kernel.run();
  }

  void walk(std::span<const Step> steps) {
    for (const Step& step : steps) EXPECT_EQ(screenAfter(step.keys), step.screen) << '"' << step.keys << '"';
  }

  static PanelMenu* self;  // for the routines that a card has
  Rig rig_;
  std::array<chassis::card, 6> cards_{};
  std::map<int, u32> values_{{0, 5}, {2, 6}};
  std::map<int, MenuEngine::Words> faults_;
  Lcd lcd_;
  Keypad keys_{rig_.kernel};
  MenuEngine menu_{rig_.kernel,
                   lcd_,
                   keys_,
                   {.card = [this](int slot) { return &cards_[static_cast<std::size_t>(slot)]; },
                    .fault = [this](int slot) -> std::optional<MenuEngine::Words> {
                      const auto fault = faults_.find(slot);
                      return fault == faults_.end() ? std::nullopt : std::optional(fault->second);
                    },
                    .text = [](int slot, u32 id) { return fmt::format("v{}.{}", slot, id); },
                    .stop = [this](const std::string& why) { rig_.kernel.fail(why); }}};
};
PanelMenu* PanelMenu::self = nullptr;

constexpr item_t kOptions[] = {
    {.val = 5, .zh = label("five"), .en = label("5")},
    {.val = 6, .flag = item_t::kLast, .zh = label("six"), .en = label("6")},
};

TEST_F(PanelMenu, WalksTheTreesOfAllCardsAndKnowsNone) {
  const item_t leaves[] = {
      {.id = kName, .flag = item_t::kText, .zh = label("name"), .en = label("Name")},
      {.id = kValue, .flag = item_t::kOptions, .submenu = kOptions, .zh = label("seen"), .en = label("Seen")},
      {.id = kValue,
       .flag = item_t::kOptions | item_t::kSettable,
       .submenu = kOptions,
       .zh = label("set"),
       .en = label("Set")},
      {.flag = item_t::kHandler | item_t::kLast,
       .minVal = os::addressWord(showsKeys),
       .zh = label("own"),
       .en = label("Own")},
  };
  const item_t tree[] = {
      {.zh = label("leer"), .en = label("No leaves")},
      {.flag = item_t::kLast, .submenu = leaves, .zh = label("all"), .en = label("Leaves")}};
  install(tree);
  keys_.timeout(3 * kSecond);
  const Step steps[] = {
      {"", "Headend/>card 1/card 3/Language English/"},
      {"udo", "card 1/>No leaves/Leaves//"},
      {"ddr", "card 1/>No leaves/Leaves//"},  // wraps to the first, which has nothing below
      {"uo", "Leaves/>Name        v0.8/Seen           5/Set            5/"},
      {"u", "Leaves/Seen           5/Set            5/>Own/"},
      {"o", "Own//slot 0 port 0//"},
      {"uuo", "Set/>5/6//"},
      {"dc", "Leaves/Name        v0.8/Seen           5/>Set            5/"},    // left with nothing set
      {"oddo", "Leaves/Name        v0.8/Seen           5/>Set            5/"},  // around to the same
      {"odo", "Leaves/Name        v0.8/Seen           6/>Set            6/"},
      {"o", "Set/5/>6//"},
      {"luo", "Leaves/Name        v0.8/>Seen           6/Set            6/"},  // to be looked at only
      {"lc", "Headend/>card 1/card 3/Language English/"},
      {"cl", "Headend/>card 1/card 3/Language English/"},  // from where nothing goes back
      {"dodo", "Leaves/>Name        v2.8/Seen           6/Set            6/"},
      {"ccdo", "前端/卡1/卡3/>语言        中文/"},
      {"uo", "卡3/>leer/all//"},
      {"douo", "own//slot 2 port 0//"},
      {"....", "前端/>卡1/卡3/语言        中文/"},  // nobody presses a key
  };
  run([&] { walk(steps); });
  EXPECT_EQ(values_, (std::map<int, u32>{{0, 6}, {2, 6}}));
}

TEST_F(PanelMenu, ACardThatDoesNotRunShowsThatUntilItDoes) {
  install(kOptions);
  faults_[0] = {u"broken", u"错误"};
  run([&] {
    walk({{{"", "Headend/>card 1         !/card 3/Language English/"}, {"oorud", "card 1/broken///"}}});
    faults_.clear();
    walk({{{".", "Headend/>card 1/card 3/Language English/"}, {"o", "card 1/>5/6//"}}});
    faults_[0] = {u"broken", u"错误"};
    walk({{{".", "card 1/broken///"}}});
  });
}

}  // namespace
}  // namespace test
