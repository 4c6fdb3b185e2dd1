// The card's front-panel menus: the tree as an operator finds it, and the editors key by key.
#include <fmt/format.h>

#include <algorithm>

#include "base/text.h"
#include "card/qamVar.h"
#include "platform/address_word.h"
#include "tests/module/chassis.h"
#include "ui/qamMenu.h"

namespace test {
namespace {

using base::utf8OfGbk;
using chassis::item_t;

// The items of a table, which an engine must come to an end of.
std::vector<const item_t*> items(const item_t* table) {
  std::vector<const item_t*> all{table};
  while ((all.back()->flag & item_t::kLast) == 0 && all.size() < 10) all.push_back(++table);
  EXPECT_LT(all.size(), 10U) << all.front()->en.text;
  return all;
}

std::string labels(const item_t& item) {
  return fmt::format("{} {}", item.en.text, utf8OfGbk(item.zh.text));
}

class Menus : public ModuleTest {
 protected:
  // The value's row: each text after its column, its inverse characters in brackets.
  std::string screen() const {
    std::string text;
    int end = -1;
    bool inverse = false;
    for (const protocol::LcdCharacter& c : fake.lcd.shown().characters) {
      if (c.row != 2) continue;
      if (inverse && (!c.inverse || c.x != end)) text += ']';
      if (c.x != end) text += fmt::format("{}{}:", text.empty() ? "" : " ", c.x);
      if (c.inverse && (!inverse || c.x != end)) text += '[';
      inverse = c.inverse;
      end = c.x + 8;
      text += c.character < 0x80 ? static_cast<char>(c.character) : '*';
    }
    return text;
  }

  // The display of an item by an engine and the card's own screens, and the steps of setting an option.
  std::string content(const item_t& item) {
    switch (item.flag & ~item_t::kLast) {
      case 0x0000:
        return "opens";
      case 0x0800:
        return os::wordAddress<const char>(QamGetVar(2, 0, item.id, nullptr));
      case 0x1408:
        for (const item_t* option : items(item.submenu))
          if (option->val == QamGetVar(2, 0, item.id, nullptr)) return labels(*option);
        return "none";
      case 0x000C: {
        std::string effects = "sets";
        for (const item_t* option : items(item.submenu)) {
          QamSetVar(2, 0, item.id, 99);
          const Lines steps = fake.stepsOf([&] { QamSetVar(2, 0, item.id, option->val); });
          effects += fmt::format(", {}: {}", labels(*option), steps.at(0));
        }
        return effects;
      }
      default:
        fake.forget();
        fake.onKeyScan = [] { return chassis::kKeyCancel; };
        EXPECT_EQ(os::wordAddress<chassis::ItemHandler>(item.minVal)(&item, 2, 0x101), 0);
        return fmt::format("screen {:x}, {}", item.flag & ~item_t::kLast, screen());
    }
  }

  void describe(const item_t& table, const std::string& indent, Lines& lines) {
    for (const item_t* item : items(&table)) {
      const std::string found = content(*item);
      lines.push_back(fmt::format("{}{}: {}", indent, labels(*item), found));
      EXPECT_TRUE(item->val == 0 && item->maxVal == 0 && std::string(item->postfix).empty()) << lines.back();
      if (found == "opens") describe(*item->submenu, indent + "  ", lines);
    }
  }
};

TEST_F(Menus, ShowTheCardsValuesAndSetThemUnderTheirNamesInBothLanguages) {
  QamParaS& settings = fake.start(2)->qam_para;
  settings.rflevel = 1012;
  settings.qammode = 6;
  EXPECT_EQ(labels(qamMenuInit), "QAM card3 QAM卡3");
  EXPECT_EQ(qamMenuInit.flag, item_t::kReadOnly | item_t::kLast);
  EXPECT_EQ(qamMenuInit.val, 2U);
  Lines tree;
  describe(*qamMenuInit.submenu, "", tree);
  const auto channel = [](int number, const char* frequency) {
    return Lines{fmt::format("  Ch.{0} 频点{0}: opens", number),
                 "    Qam Mode 调制模式: 128 128",
                 "    Symbol Rate 符号率: screen 2001, 16:6.875 70:Mbps",
                 fmt::format("    RF Freq 输出频率: screen 2001, 16:{} 82:MHz", frequency),
                 "    RF Level 输出电平: screen 2001, 16:101.2 70:dBuV",
                 "    RF Switch 输出开关: On 打开",
                 "    QAM Switch 调制开关: On 打开"};
  };
  const Lines version = {"QAM Sta. 调制器状态: opens", "  Version 版本: opens",
                         "    HARD Ver. 硬件版本: V1.0", "    MCU Ver. 软件版本: V2.1.05A",
                         "    FPGA Ver. 逻辑版本: V2.1.00"};
  const Lines set = {
      "QAM SET 调制器设置: opens",
      "  Qam Mode 调制模式: sets, 64 64: qam_mode=5, 128 128: qam_mode=6, 256 256: qam_mode=7",
      "  Symbol Rate 符号率: screen 2000, 16:[6].875 70:Mbps",
      "  RF Freq 输出频率: screen 2000, 16:[0]554.000 82:MHz",
      "  RF Level 输出电平: screen 2000, 16:[1]01.2 70:dBuV",
      "  Power Switch 输出开关: sets, On 打开: power=15, Off 关闭: power=0",
      "  RF Switch 调制开关: sets, On 打开: rf0_en=0, Off 关闭: rf0_en=1",
  };
  EXPECT_EQ(tree, version + channel(1, "0554.000") + channel(2, "0562.000") + set);
}

// Each key's letter: u d l r as they are, o OK, x cancel, q leave, . none, ? and ! codes that no key has.
TEST_F(Menus, ScreensShowEachStepAndWriteOnOkOnly) {
  using Screen = std::tuple<chassis::ItemHandler*, u32, u32 QamParaS::*, const char*>;  // at last the unit
  const Screen kRate{qamMenuSetSymRate, kVarSymbolRate, &QamParaS::symbolrate, " 70:Mbps"};
  const Screen kLevel{qamMenuSetRfLevel, kVarLevel, &QamParaS::rflevel, " 70:dBuV"};
  const Screen kFreq{qamMenuSetRfFreq, kVarFrequency, &QamParaS::rfreq, " 82:MHz"};
  const Screen kMegahertz{qamMenuGetQamInfo, kVarFrequency, &QamParaS::rfreq, " 74:MHz"};
  const Screen kDegrees{qamMenuGetQamTempr, kVarFrequency, &QamParaS::rfreq, " 74:*"};
  // The value before each key, and the setting after it.
  const auto session = [&](const Screen& on, u32 start, const char* keys, const char* screens, u32 after,
                           u16 flag = 0) {
    SCOPED_TRACE(fmt::format("{} from {}", keys, start));
    const auto handler = std::get<0>(on);
    u32& value = fake.start(2)->qam_para.*std::get<2>(on);
    value = start;
    const item_t item{.id = std::get<1>(on), .flag = flag, .en = "Item"_label};
    std::string shown;
    fake.onKeyScan = [&] {
      if (*keys == '\0') fake.leave();
      const std::string now = screen();
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
  session(kLevel, 0, "..o", "095.0 095.0 095.0", 0, item_t::kReadOnly);
  session(kMegahertz, 1052007, ".o", "52.007 52.007", 1052007, item_t::kReadOnly);
  session(kMegahertz, 52007, "", "", 52007);
  session(kDegrees, 205, ".o", "05 05", 205);
}

}  // namespace
}  // namespace test
