// The card's front-panel menus: the tree as an operator finds it, and the editors key by key.
#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "card/QamInit.h"
#include "card/qamVar.h"
#include "platform/address_word.h"
#include "tests/module/chassis.h"
#include "tests/module/gbk_text.h"
#include "ui/qamMenu.h"

namespace test {

using chassis::item_t;

struct Session {
  const char* name;
  const char* path;
  u32 start;
  const char* keys;     // u d l r as they are, o OK, x cancel, q leave, . none, ? a code that no key has
  const char* screens;  // each value drawn, its inverse characters in brackets
  u32 after;            // what the variable then holds
};

namespace {

bool isLast(const item_t& item) {
  return (item.flag & item_t::kLast) != 0;
}

// The items of a table, which an engine must come to an end of.
std::vector<const item_t*> items(const item_t* table) {
  std::vector<const item_t*> all;
  do all.push_back(table);
  while (!isLast(*table++) && all.size() < 10);
  EXPECT_TRUE(isLast(*all.back())) << all.front()->en.text;
  return all;
}

// By English labels, from the root's table down.
const item_t* find(std::string_view path) {
  const item_t* item = &qamMenuInit;
  while (!path.empty()) {
    const std::string_view label = path.substr(0, path.find('/'));
    path.remove_prefix(std::min(path.size(), label.size() + 1));
    const auto below = items(item->submenu);
    const auto named =
        std::find_if(below.begin(), below.end(), [&](const item_t* one) { return one->en.text == label; });
    if (named == below.end()) throw std::out_of_range(std::string(label));
    item = *named;
  }
  return item;
}

long open(const item_t& item) {
  return os::wordAddress<chassis::ItemHandler>(item.minVal)(&item, 2, 0x101);
}

// What stands in the value's row: the unit, and the value with its inverse characters in brackets.
std::string screen(const Lines& log) {
  std::string text;
  int next = 16;  // the column in which the value goes on
  for (const std::string& line : log) {
    int column = 0;
    u32 attribute = 0, mask = 0;
    int at = 0;
    if (std::sscanf(line.c_str(), "lcd 2 %d %x %x %n", &column, &attribute, &mask, &at) != 3) continue;
    const std::string drawn = line.substr(static_cast<std::size_t>(at));
    if (attribute != chassis::kPanelValue) {
      text += fmt::format("{} at {}, ", drawn, column);
      continue;
    }
    EXPECT_EQ(column, next) << line;
    next += 8 * static_cast<int>(drawn.size());
    bool inverse = false;
    for (const char character : drawn) {
      if (inverse != (mask >> 31 != 0)) text += inverse ? ']' : '[';
      inverse = mask >> 31 != 0;
      text += character;
      mask <<= 1;
    }
    if (inverse) text += ']';
  }
  return text;
}

class Menus : public ModuleTest {
 public:
  Menus() : record_(fake.start(2)) {}

 protected:
  u32& setting(u32 id) const {
    QamParaS& settings = record_->qam_para;
    return id == kVarSymbolRate ? settings.symbolrate : id == kVarLevel ? settings.rflevel : settings.rfreq;
  }

  // What was drawn since the last call.
  std::string drawn() { return screen(std::exchange(fake.log, {})); }

  QamCardPara* record_;
};

// ---- The tree ----

std::string labels(const item_t& item) {
  EXPECT_LT(strnlen(item.zh.text, sizeof item.zh.text), sizeof item.zh.text);
  EXPECT_LT(strnlen(item.en.text, sizeof item.en.text), sizeof item.en.text);
  return fmt::format("{} {}", item.en.text, utf8(item.zh.text));
}

// What an engine and the card's own screens show of an item, and what setting an option does first.
std::string content(const item_t& item, FakeChassis& fake) {
  switch (item.flag & ~item_t::kLast) {
    case 0x0000:
      return "opens";
    case 0x0800:
      return os::wordAddress<const char>(QamGetVar(2, 0, item.id, nullptr));
    case 0x1408: {
      const auto options = items(item.submenu);
      const auto shown = std::find_if(options.begin(), options.end(), [&](const item_t* option) {
        return option->val == QamGetVar(2, 0, item.id, nullptr);
      });
      return shown == options.end() ? "none" : labels(**shown);
    }
    case 0x000C: {
      std::string effects = "sets";
      for (const item_t* option : items(item.submenu)) {
        const item_t* other = option == item.submenu ? option + 1 : item.submenu;
        QamSetVar(2, 0, item.id, other->val);
        fake.steps.clear();
        QamSetVar(2, 0, item.id, option->val);
        effects += fmt::format(", {}: {}", labels(*option), fake.steps.at(0));
      }
      return effects;
    }
    case 0x2000:
    case 0x2001: {
      fake.log.clear();
      fake.onKeyScan = [] { return chassis::kKeyCancel; };
      EXPECT_EQ(open(item), 0);
      EXPECT_EQ(fake.log.at(0), fmt::format("heading {} 0 10000000", item.en.text));
      return screen(fake.log);
    }
    default:
      return fmt::format("flag {:x}", item.flag);
  }
}

void describe(const item_t& table, const std::string& indent, FakeChassis& fake, Lines& lines) {
  for (const item_t* item : items(&table)) {
    const std::string found = content(*item, fake);
    lines.push_back(fmt::format("{}{}: {}", indent, labels(*item), found));
    EXPECT_EQ(item->val, 0U) << lines.back();
    EXPECT_EQ(item->maxVal, 0U) << lines.back();
    EXPECT_STREQ(item->postfix, "") << lines.back();
    if (found == "opens") describe(*item->submenu, indent + "  ", fake, lines);
  }
}

TEST_F(Menus, ShowTheCardsValuesAndSetThemUnderTheirNamesInBothLanguages) {
  record_->qam_para.rfreq = 554000;
  record_->qam_para.rflevel = 1012;
  record_->qam_para.symbolrate = 6875;
  record_->qam_para.qammode = 6;
  record_->qam_para.rfswitch = 1;
  record_->qam_para.power = 15;
  EXPECT_EQ(labels(qamMenuInit), "QAM card3 QAM卡3");
  EXPECT_EQ(qamMenuInit.flag, item_t::kReadOnly | item_t::kLast);
  EXPECT_EQ(qamMenuInit.val, 2U);
  Lines tree;
  describe(*qamMenuInit.submenu, "", fake, tree);
  const Lines expected = {
      "QAM Sta. 调制器状态: opens",
      "  Version 版本: opens",
      "    HARD Ver. 硬件版本: V1.0",
      "    MCU Ver. 软件版本: V2.1.05A",
      "    FPGA Ver. 逻辑版本: V2.1.00",
      "  Ch.1 频点1: opens",
      "    Qam Mode 调制模式: 128 128",
      "    Symbol Rate 符号率: Mbps at 70, 6.875",
      "    RF Freq 输出频率: MHz at 82, 0554.000",
      "    RF Level 输出电平: dBuV at 70, 101.2",
      "    RF Switch 输出开关: On 打开",
      "    QAM Switch 调制开关: Off 关闭",
      "  Ch.2 频点2: opens",
      "    Qam Mode 调制模式: 128 128",
      "    Symbol Rate 符号率: Mbps at 70, 6.875",
      "    RF Freq 输出频率: MHz at 82, 0562.000",
      "    RF Level 输出电平: dBuV at 70, 101.2",
      "    RF Switch 输出开关: On 打开",
      "    QAM Switch 调制开关: Off 关闭",
      "QAM SET 调制器设置: opens",
      "  Qam Mode 调制模式: sets, 64 64: qam_mode=5, 128 128: qam_mode=6, 256 256: qam_mode=7",
      "  Symbol Rate 符号率: Mbps at 70, [6].875",
      "  RF Freq 输出频率: MHz at 82, [0]554.000",
      "  RF Level 输出电平: dBuV at 70, [1]01.2",
      "  Power Switch 输出开关: sets, On 打开: power=15, Off 关闭: power=0",
      "  RF Switch 调制开关: sets, On 打开: rf0_en=0, Off 关闭: rf0_en=1",
  };
  EXPECT_EQ(tree, expected);
}

TEST_F(ModuleTest, CardsShareTheRootAndTheLastOneNamesIt) {
  Qam_Init(1);
  Qam_Init(4);
  EXPECT_EQ(std::count(fake.log.begin(), fake.log.end(), "menu 1 QAM card2"), 1);
  EXPECT_EQ(std::count(fake.log.begin(), fake.log.end(), "menu 4 QAM card5"), 1);
  EXPECT_EQ(utf8(qamMenuInit.zh.text), "QAM卡5");
  EXPECT_EQ(chassis::GetCardPoint(1)->menu, &qamMenuInit);
  EXPECT_EQ(chassis::GetCardPoint(4)->menu, &qamMenuInit);
}

// ---- The screens ----

u8 keyCode(char key) {
  return key == 'q'   ? u8{0xFF}
         : key == '!' ? u8{0xFE}
                      : static_cast<u8>(std::string_view(".oxudlr?").find(key));
}

class MenuSessions : public Menus, public ::testing::WithParamInterface<Session> {};

constexpr const char* kRate = "QAM SET/Symbol Rate";
constexpr const char* kFreq = "QAM SET/RF Freq";
constexpr const char* kLevel = "QAM SET/RF Level";

INSTANTIATE_TEST_SUITE_P(
    Each, MenuSessions,
    ::testing::Values(
        Session{"RateBelowItsRange", kRate, 4000, "o", "[5].000", 5000},
        Session{"RateAboveItsRange", kRate, 8000, "o", "[7].000", 7000},
        Session{"RateBetweenEighths", kRate, 6999, "o", "[6].999", 6999},
        Session{"RateInEighths", kRate, 6500, "ruuuuo", "[6].500 6.[500] 6.[625] 6.[750] 6.[875] 6.[000]",
                6000},
        Session{"RateFractionBorrowsNothing", kRate, 5000, "rddo", "[5].000 5.[000] 5.[875] 5.[750]", 5750},
        Session{"RateFractionAtTheTop", kRate, 7000, "ruudldo",
                "[7].000 7.[000] 7.[000] 7.[000] 7.[000] [7].000 [6].000", 6000},
        Session{"RateFractionRunsOver", kRate, 6900, "ruo", "[6].900 6.[900] 6.[025]", 6025},
        Session{"RateFractionRunsUnder", kRate, 6050, "rdo", "[6].050 6.[050] 6.[461]", 6461},
        Session{"RateDigitStaysInRange", kRate, 6875, "uuddddo",
                "[6].875 [7].000 [7].000 [6].000 [5].000 [5].000 [5].000", 5000},
        Session{"RateCursorToggles", kRate, 6875, "rrllx", "[6].875 6.[875] [6].875 6.[875] [6].875", 6875},

        Session{"LevelBelowItsRange", kLevel, 0, "o", "[0]95.0", 950},
        Session{"LevelAboveItsRange", kLevel, 65535, "o", "[1]15.0", 1150},
        Session{"LevelHundredsDown", kLevel, 1000, "do", "[1]00.0 [0]95.0", 950},
        Session{"LevelHundredsUp", kLevel, 960, "uuo", "[0]96.0 [1]15.0 [1]15.0", 1150},
        Session{"LevelTensDownFromNought", kLevel, 1000, "rdddo", "[1]00.0 1[0]0.0 1[1]0.0 1[0]0.0 1[1]0.0",
                1100},
        Session{"LevelTensUpFromNine", kLevel, 990, "ruo", "[0]99.0 0[9]9.0 0[9]5.0", 950},
        Session{"LevelUnitsDownFromNought", kLevel, 1000, "rrdo", "[1]00.0 1[0]0.0 10[0].0 10[1].0", 1010},
        Session{"LevelUnitsUpFromNine", kLevel, 1090, "rruo", "[1]09.0 1[0]9.0 10[9].0 10[0].0", 1000},
        Session{"LevelTenths", kLevel, 1000, "luuddo", "[1]00.0 100.[0] 100.[5] 100.[0] 100.[5] 100.[0]",
                1000},
        Session{"LevelTenthsPastNine", kLevel, 1003, "luuo", "[1]00.3 100.[3] 100.[8] 101.[3]", 1013},
        Session{"LevelTenthsBelowNought", kLevel, 1002, "lddo", "[1]00.2 100.[2] 099.[7] 099.[2]", 992},
        Session{"LevelCursorSkipsThePoint", kLevel, 1000, "rrrrllllx",
                "[1]00.0 1[0]0.0 10[0].0 100.[0] [1]00.0 100.[0] 10[0].0 1[0]0.0 [1]00.0", 1000},

        Session{"FrequencyBelowItsRange", kFreq, 51999, "o", "[0]052.000", 52000},
        Session{"FrequencyAboveItsRange", kFreq, 4000000000, "o", "[1]000.000", 1000000},
        Session{"FrequencyAtTheBottom", kFreq, 52000, "rrrdo",
                "[0]052.000 0[0]52.000 00[5]2.000 005[2].000 005[2].000", 52000},
        Session{"FrequencyThousandsUpAndDown", kFreq, 554000, "uudo",
                "[0]554.000 [1]000.000 [1]000.000 [0]052.000", 52000},
        Session{"FrequencyDigitsGoRound", kFreq, 954000, "rurrrrduo",
                "[0]954.000 0[9]54.000 0[0]54.000 00[5]4.000 005[4].000 0054.[0]00 0054.0[0]0 0054.0[9]0 "
                "0054.0[0]0",
                54000},
        Session{"FrequencyCursorSkipsThePoint", kFreq, 474000, "rrrrrrrlllllllx",
                "[0]474.000 0[4]74.000 04[7]4.000 047[4].000 0474.[0]00 0474.0[0]0 0474.00[0] [0]474.000 "
                "0474.00[0] 0474.0[0]0 0474.[0]00 047[4].000 04[7]4.000 0[4]74.000 [0]474.000",
                474000},

        Session{"CancelKeepsTheStoredValue", kLevel, 0, "lux", "[0]95.0 095.[0] 095.[5]", 0},
        Session{"LeavingKeepsTheStoredValue", kRate, 6875, "dq", "[6].875 [5].875", 6875},
        Session{"NoKeyDrawsNothing", kFreq, 474000, "...l..u..o", "[0]474.000 0474.00[0] 0474.00[1]", 474001},
        Session{"OtherCodesDrawAnew", kRate, 6875, "?r!.x", "[6].875 [6].875 6.[875] 6.[875]", 6875},
        Session{"StatusOnlyShows", "QAM Sta./Ch.1/RF Level", 0, "..o", "095.0", 0},
        Session{"StatusEndsWithAnyKey", "QAM Sta./Ch.1/Symbol Rate", 8000, "?", "7.000", 8000},
        Session{"StatusOfChannel2", "QAM Sta./Ch.2/RF Freq", 554000, "u", "0562.000", 554000}),
    kRowName);

TEST_P(MenuSessions, ShowEachStepAndWriteOnOkOnly) {
  const Session& row = GetParam();
  const item_t& item = *find(row.path);
  u32& value = setting(item.id > 37 ? item.id - 8 : item.id);
  value = row.start;
  std::string screens;
  const char* key = row.keys;
  fake.onKeyScan = [&] {
    if (const std::string shown = drawn(); !shown.empty()) {
      screens += (screens.empty() ? "" : " ") + shown;
    }
    if (*key == '\0') fake.leave();
    return keyCode(*key++);
  };
  EXPECT_TRUE(fake.runs([&] { EXPECT_EQ(open(item), 0); })) << "it goes on";
  EXPECT_STREQ(key, "") << "it has ended";
  screens.erase(0, screens.find(", ") + 2);  // the unit
  EXPECT_EQ(screens, row.screens);
  EXPECT_EQ(screen(fake.log), "") << "it draws when it has ended";
  EXPECT_EQ(value, row.after);
  EXPECT_EQ(std::count(fake.log.begin(), fake.log.end(), "save 2"), row.after != row.start);
}

TEST_F(Menus, ViewersShowLastDigitsUntilAKeyIsPressed) {
  struct Row {
    chassis::ItemHandler* viewer;
    u32 value;
    u16 flag;
    int scans;  // of keys, the second of which gives one
    const char* drawn;
  };
  const Row rows[] = {
      {qamMenuGetQamInfo, 52007, 0x2001, 2, "MHz at 74, 52.007"},
      {qamMenuGetQamInfo, 1000000, 0x2001, 2, "MHz at 74, 00.000"},
      {qamMenuGetQamInfo, 52007, 0x2000, 0, "MHz at 74, "},
      {qamMenuGetQamTempr, 41, 0x2001, 2, "\xA1\xE6 at 74, 41"},
      {qamMenuGetQamTempr, 205, 0x2000, 2, "\xA1\xE6 at 74, 05"},
  };
  for (const auto& [viewer, value, flag, scans, lines] : rows) {
    record_->qam_para.rfreq = value;
    const item_t item{.id = kVarFrequency, .flag = flag, .en = "Item"_label};
    int scanned = 0;
    fake.onKeyScan = [&] { return ++scanned < 2 ? chassis::kKeyNone : chassis::kKeyCancel; };
    EXPECT_EQ(viewer(&item, 2, 0), 0);
    EXPECT_EQ(fake.log.at(0), "heading Item 0 10000000");
    EXPECT_EQ(drawn(), lines);
    EXPECT_EQ(scanned, scans);
  }
}

TEST_F(Menus, HandlersDrawNothingForNoItem) {
  for (chassis::ItemHandler* handler :
       {qamMenuSetSymRate, qamMenuSetRfFreq, qamMenuSetRfLevel, qamMenuGetQamInfo, qamMenuGetQamTempr}) {
    EXPECT_EQ(handler(nullptr, 2, 0), -1);
  }
  EXPECT_TRUE(fake.log.empty());
}

}  // namespace
}  // namespace test
