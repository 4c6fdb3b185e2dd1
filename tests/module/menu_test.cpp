// The flags of the card's front-panel menus, and their screens key by key. The texts: e2e/panel.py.
#include <fmt/format.h>

#include <algorithm>
#include <regex>

#include "card/qamVar.h"
#include "tests/module/chassis.h"
#include "ui/qamMenu.h"

namespace test {
namespace {

using chassis::item_t;

using Menus = ModuleTest;

// The value's row: each text after its column, its inverse characters in brackets.
std::string valueRow(const protocol::LcdImage& lcd) {
  std::string text;
  int end = -1;
  for (const protocol::LcdCharacter& c : lcd.characters) {
    if (c.row != 2) continue;
    if (c.x != end) text += fmt::format("{}{}:", text.empty() ? "" : " ", c.x);
    const std::string shown(1, c.character < 0x80 ? static_cast<char>(c.character) : '*');
    text += c.inverse ? '[' + shown + ']' : shown;
    end = c.x + 8;
  }
  return std::regex_replace(text, std::regex(R"(\]\[)"), "");
}

// The flags of a table's items in order, each with those of the table below it.
std::string flagsIn(const item_t* item) {
  std::string flags = fmt::format("{:x}", item->flag);
  if (item->submenu != nullptr) flags += " (" + flagsIn(item->submenu) + ")";
  return (item->flag & chassis::kItemLast) != 0 ? flags : flags + ' ' + flagsIn(item + 1);
}

// A panel of another chassis may look at bits that the headend's does not.
TEST_F(Menus, ItemsHaveTheirFlags) {
  const std::string channel = "1408 (0 0 2) 2001 2001 2001 1408 (0 2) 140a (0 2)";
  EXPECT_EQ(flagsIn(&qamMenuInit), "3 (0 (0 (800 800 802) 0 (" + channel + ") 2 (" + channel +
                                       ")) 2 (c (0 0 2) 2000 2000 2000 c (0 2) e (0 2)))");
}

// Each key's letter: u d l r as they are, o OK, x cancel, q leave, . none, ? and ! codes that no key has.
TEST_F(Menus, ScreensShowEachStepAndWriteOnOkOnly) {
  using Screen = std::tuple<chassis::ItemHandler*, u32, u32 QamParaS::*, const char*>;  // at last the unit
  const Screen kRate{qamMenuSetSymRate, kVarSymbolRate, &QamParaS::symbolrate, " 70:Mbps"};
  const Screen kLevel{qamMenuSetRfLevel, kVarLevel, &QamParaS::rflevel, " 70:dBuV"};
  const Screen kFreq{qamMenuSetRfFreq, kVarFrequency, &QamParaS::rfreq, " 82:MHz"};
  const Screen kMegahertz{qamMenuGetQamInfo, kVarFrequency, &QamParaS::rfreq, " 74:MHz"};
  const Screen kDegrees{qamMenuGetQamTempr, kVarFrequency, &QamParaS::rfreq, " 74:*"};
  QamParaS& settings = fake.start(2)->qam_para;
  // The value before each key, and the setting after it.
  const auto session = [&](const Screen& on, u32 start, const char* keys, const char* screens, u32 after,
                           u16 flag = 0) {
    SCOPED_TRACE(fmt::format("{} from {}", keys, start));
    const auto handler = std::get<0>(on);
    u32& value = settings.*std::get<2>(on);
    value = start;
    fake.forget();
    const item_t item{.id = std::get<1>(on), .flag = flag, .en = "Item"_label};
    std::string shown;
    fake.onKeyScan = [&] {
      if (*keys == '\0') fake.leave();
      const std::string now = valueRow(fake.lcd.shown());
      EXPECT_TRUE(now.starts_with("16:") && now.ends_with(std::get<3>(on))) << now;
      shown += (shown.empty() ? "" : " ") + now.substr(3, now.rfind(' ') - 3);
      const auto code = std::string_view(".oxudlr?!").find(*keys);
      return *keys++ == 'q' ? u8{0xFF} : static_cast<u8>(code);
    };
    EXPECT_TRUE(fake.runs([&] { EXPECT_EQ(handler(&item, 2, 0x101), 0); })) << "it goes on";
    EXPECT_STREQ(keys, "") << "it has ended";
    EXPECT_EQ(fake.log.front(), "heading Item 0 10000000");
    EXPECT_EQ(shown, screens);
    EXPECT_EQ(value, after);
    EXPECT_EQ(std::count(fake.log.begin(), fake.log.end(), "save 2"), after != start);
    fake.forget();
    EXPECT_EQ(handler(nullptr, 2, 0), -1);
    EXPECT_EQ(fake.log, Lines{});
  };
  // Ranges
  session(kRate, 4000, "o", "[5].000", 5000);
  session(kRate, 8000, "o", "[7].000", 7000);
  session(kRate, 6875, "uruldddo", "[6].875 [7].000 7.[000] 7.[000] [7].000 [6].000 [5].000 [5].000", 5000);
  session(kLevel, 0, "o", "[0]95.0", 950);
  session(kLevel, 65535, "o", "[1]15.0", 1150);
  session(kLevel, 960, "uudo", "[0]96.0 [1]15.0 [1]15.0 [0]95.0", 950);
  session(kFreq, 51999, "o", "[0]052.000", 52000);
  session(kFreq, 4000000000, "o", "[1]000.000", 1000000);
  session(kFreq, 554000, "uudo", "[0]554.000 [1]000.000 [1]000.000 [0]052.000", 52000);
  // A fraction wraps around in eighths; one between them overflows and underflows.
  session(kRate, 6750, "ruuddo", "[6].750 6.[750] 6.[875] 6.[000] 6.[875] 6.[750]", 6750);
  session(kRate, 6900, "ruo", "[6].900 6.[900] 6.[025]", 6025);
  session(kRate, 6050, "rdo", "[6].050 6.[050] 6.[461]", 6461);
  // Digits wrap around, a level's down from 0 to 1, its tenths in steps of five.
  session(kLevel, 1000, "rddo", "[1]00.0 1[0]0.0 1[1]0.0 1[0]0.0", 1000);
  session(kLevel, 990, "ruo", "[0]99.0 0[9]9.0 0[9]5.0", 950);
  session(kLevel, 1000, "luudo", "[1]00.0 100.[0] 100.[5] 100.[0] 100.[5]", 1005);
  session(kLevel, 1003, "luuo", "[1]00.3 100.[3] 100.[8] 101.[3]", 1013);
  session(kLevel, 1002, "ldo", "[1]00.2 100.[2] 099.[7]", 997);
  session(kFreq, 954000, "rulluo", "[0]954.000 0[9]54.000 0[0]54.000 [0]054.000 0054.00[0] 0054.00[1]",
          54001);
  session(kFreq, 954000, "ldo", "[0]954.000 0954.00[0] 0954.00[9]", 954009);
  // The cursor stops at each digit, at a fraction as a whole, and wraps around.
  session(kRate, 6875, "rrllx", "[6].875 6.[875] [6].875 6.[875] [6].875", 6875);
  session(kLevel, 1000, "rrrrllx", "[1]00.0 1[0]0.0 10[0].0 100.[0] [1]00.0 100.[0] 10[0].0", 1000);
  session(kFreq, 474000, "rrrrrx", "[0]474.000 0[4]74.000 04[7]4.000 047[4].000 0474.[0]00 0474.0[0]0",
          474000);
  session(kFreq, 474000, "lrlllx", "[0]474.000 0474.00[0] [0]474.000 0474.00[0] 0474.0[0]0 0474.[0]00",
          474000);
  // Without OK nothing is set; other codes change nothing.
  session(kLevel, 0, "lux", "[0]95.0 095.[0] 095.[5]", 0);
  session(kRate, 6875, "dq", "[6].875 [5].875", 6875);
  session(kLevel, 1000, ".?!.o", "[1]00.0 [1]00.0 [1]00.0 [1]00.0 [1]00.0", 1000);
  // Viewers.
  session(kLevel, 0, "..o", "095.0 095.0 095.0", 0, chassis::kItemReadOnly);
  session(kRate, 6875, ".o", "6.875 6.875", 6875, chassis::kItemReadOnly);
  session(kMegahertz, 1052007, ".o", "52.007 52.007", 1052007, chassis::kItemReadOnly);
  session(kMegahertz, 52007, "", "", 52007);
  session(kDegrees, 205, ".o", "05 05", 205);
}

}  // namespace
}  // namespace test
