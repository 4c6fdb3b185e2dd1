// The card's front-panel menus: the tree as an operator finds it, and the editors key by key.
#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <random>

#include "card/QamInit.h"
#include "card/qamVar.h"
#include "platform/address_word.h"
#include "tests/module/chassis.h"
#include "tests/module/gbk_text.h"
#include "tests/module/menu_model.h"
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

class Menus : public ModuleTest {
 public:
  Menus() : record_(fake.start(2)) {}

 protected:
  // The items of a table, which an engine must come to an end of.
  static std::vector<const item_t*> items(const item_t* table) {
    std::vector<const item_t*> all;
    do all.push_back(table);
    while (!isLast(*table++) && all.size() < 10);
    EXPECT_TRUE(isLast(*all.back())) << all.front()->en.text;
    return all;
  }

  // By labels, in either language, from the root's table down.
  static const item_t* find(std::string_view path) {
    const item_t* item = &qamMenuInit;
    while (!path.empty()) {
      const std::string_view label = path.substr(0, path.find('/'));
      path.remove_prefix(std::min(path.size(), label.size() + 1));
      const auto below = items(item->submenu);
      const auto named = std::find_if(below.begin(), below.end(), [&](const item_t* one) {
        return one->en.text == label || utf8(one->zh.text) == label;
      });
      if (named == below.end()) throw std::out_of_range(std::string(label));
      item = *named;
    }
    return item;
  }

  u32& setting(u32 id) const {
    QamParaS& settings = record_->qam_para;
    return id == kVarSymbolRate ? settings.symbolrate : id == kVarLevel ? settings.rflevel : settings.rfreq;
  }

  // What was drawn since the last call.
  Lines drawn() {
    Lines lines;
    for (const std::string& line : fake.log) {
      if (line.starts_with("lcd") || line.starts_with("heading")) lines.push_back(line);
    }
    fake.log.clear();
    return lines;
  }

  static long open(const item_t& item) {
    return os::wordAddress<chassis::ItemHandler>(item.minVal)(&item, 2, 0x101);
  }

  QamCardPara* record_;
};

// ---- The tree ----

// The whole tree in a language: its tables by path, and what an engine shows in them.
std::string valueShown(const item_t& item, bool chinese) {
  const u32 value = QamGetVar(2, 0, item.id, nullptr);
  if ((item.flag & item_t::kText) != 0) return os::wordAddress<const char>(value);
  if ((item.flag & item_t::kOptions) == 0) return std::to_string(value);
  const item_t* option = item.submenu;
  while (option->val != value && !isLast(*option)) ++option;
  return option->val == value ? chinese ? utf8(option->zh.text) : option->en.text : "none";
}

TEST_F(Menus, ShowTheCardsValuesUnderTheirNamesInBothLanguages) {
  record_->qam_para.rfreq = 554000;
  record_->qam_para.rflevel = 1012;
  record_->qam_para.symbolrate = 6875;
  record_->qam_para.qammode = 6;
  record_->qam_para.rfswitch = 1;
  record_->qam_para.power = 15;
  const std::pair<const char*, const char*> tables[] = {
      {"QAM Sta./Version", "HARD Ver. V1.0, MCU Ver. V2.1.05A, FPGA Ver. V2.1.00"},
      {"QAM Sta./Ch.1",
       "Qam Mode 128, Symbol Rate 6875, RF Freq 554000, RF Level 1012, RF Switch On, QAM Switch Off"},
      {"QAM Sta./Ch.2",
       "Qam Mode 128, Symbol Rate 6875, RF Freq 562000, RF Level 1012, RF Switch On, QAM Switch Off"},
      {"QAM SET",
       "Qam Mode 128, Symbol Rate 6875, RF Freq 554000, RF Level 1012, Power Switch On, RF Switch Off"},
      {"调制器状态/版本", "硬件版本 V1.0, 软件版本 V2.1.05A, 逻辑版本 V2.1.00"},
      {"调制器状态/频点1",
       "调制模式 128, 符号率 6875, 输出频率 554000, 输出电平 1012, 输出开关 打开, 调制开关 关闭"},
      {"调制器状态/频点2",
       "调制模式 128, 符号率 6875, 输出频率 562000, 输出电平 1012, 输出开关 打开, 调制开关 关闭"},
      {"调制器设置",
       "调制模式 128, 符号率 6875, 输出频率 554000, 输出电平 1012, 输出开关 打开, 调制开关 关闭"},
  };
  for (const auto& [path, content] : tables) {
    const bool chinese = path[0] != 'Q';
    std::string found;
    for (const item_t* item : items(find(path)->submenu)) {
      found += fmt::format("{}{} {}", found.empty() ? "" : ", ",
                           chinese ? utf8(item->zh.text) : item->en.text, valueShown(*item, chinese));
    }
    EXPECT_EQ(found, content) << path;
  }
}

TEST_F(Menus, HaveWhatAnEngineCountsOn) {
  int leaves = 0;
  const std::function<void(const item_t&, const item_t*)> visit = [&](const item_t& item,
                                                                      const item_t* parent) {
    SCOPED_TRACE(item.en.text);
    for (const chassis::Label* label : {&item.zh, &item.en}) {
      EXPECT_LT(strnlen(label->text, sizeof label->text), sizeof label->text);
    }
    EXPECT_STREQ(item.postfix, "");
    EXPECT_EQ(item.maxVal, 0U);
    const bool settable = parent != nullptr && parent == find("QAM SET");
    const bool isOption = parent != nullptr && (parent->flag & item_t::kOptions) != 0;
    u16 flag = 0;
    if (item.minVal != 0) {
      flag = settable ? 0x2000 : 0x2001;
    } else if (item.id != item_t::kNoVariable) {
      flag = item.submenu == nullptr ? 0x0800 : settable ? 0x000C : 0x1408;
    } else if (parent == nullptr) {
      flag = 0x0001;
    }
    EXPECT_EQ(item.flag & ~item_t::kLast, flag);
    if (item.id != item_t::kNoVariable) ++leaves;
    EXPECT_TRUE(isOption || item.val == (parent == nullptr ? 2 : 0));
    if (item.submenu == nullptr) return;
    for (const item_t* below : items(item.submenu)) visit(*below, &item);
  };
  EXPECT_TRUE(isLast(qamMenuInit));
  visit(qamMenuInit, nullptr);
  EXPECT_EQ(leaves, 21);
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(find("QAM Sta./Ch.2")->submenu[i].id, find("QAM Sta./Ch.1")->submenu[i].id + 8);
  }
}

TEST_F(Menus, OptionsReachTheRegisterThatTheirNamesPromise) {
  struct Choice {
    const char *item, *option, *step;
  };
  record_->qam_para.qammode = 0;
  record_->qam_para.power = 1;
  record_->qam_para.rfswitch = 2;
  for (const auto& [item, option, step] :
       {Choice{"Qam Mode", "64", "qam_mode=5"}, Choice{"Qam Mode", "128", "qam_mode=6"},
        Choice{"Qam Mode", "256", "qam_mode=7"}, Choice{"Power Switch", "On", "power=15"},
        Choice{"Power Switch", "Off", "power=0"}, Choice{"RF Switch", "On", "rf0_en=0"},
        Choice{"RF Switch", "Off", "rf0_en=1"}}) {
    const item_t* choice = find(fmt::format("QAM SET/{}", item));
    fake.steps.clear();
    QamSetVar(2, 0, choice->id, find(fmt::format("QAM SET/{}/{}", item, option))->val);
    EXPECT_EQ(fake.steps.at(0), step);
  }
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

// The value as it stands, from the lines that drew it.
std::string screen(const Lines& drawn) {
  std::string text;
  for (const std::string& line : drawn) {
    int column = 0;
    u32 attribute = 0, mask = 0;
    int at = 0;
    if (std::sscanf(line.c_str(), "lcd 2 %d %x %x %n", &column, &attribute, &mask, &at) != 3) continue;
    if (attribute != chassis::kPanelValue) continue;
    bool inverse = false;
    for (const char character : line.substr(static_cast<std::size_t>(at))) {
      if (inverse != (mask >> 31 != 0)) text += inverse ? ']' : '[';
      inverse = mask >> 31 != 0;
      text += character;
      mask <<= 1;
    }
    if (inverse) text += ']';
  }
  return text;
}

u8 keyCode(char key) {
  return key == 'q'   ? u8{0xFF}
         : key == '!' ? u8{0xFE}
                      : static_cast<u8>(std::string_view(".oxudlr?").find(key));
}

class Sessions : public Menus, public ::testing::WithParamInterface<Session> {};

constexpr const char* kRate = "QAM SET/Symbol Rate";
constexpr const char* kFreq = "QAM SET/RF Freq";
constexpr const char* kLevel = "QAM SET/RF Level";

INSTANTIATE_TEST_SUITE_P(
    Each, Sessions,
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

TEST_P(Sessions, ShowEachStepAndWriteOnOkOnly) {
  const Session& row = GetParam();
  const item_t& item = *find(row.path);
  u32& value = setting(item.id > 37 ? item.id - 8 : item.id);
  value = row.start;
  std::string screens;
  const char* key = row.keys;
  fake.onKeyScan = [&] {
    if (const std::string shown = screen(drawn()); !shown.empty()) {
      screens += (screens.empty() ? "" : " ") + shown;
    }
    if (*key == '\0') fake.leave();
    return keyCode(*key++);
  };
  EXPECT_TRUE(fake.runs([&] { EXPECT_EQ(open(item), 0); })) << "it goes on";
  EXPECT_STREQ(key, "") << "it has ended";
  EXPECT_EQ(screens, row.screens);
  EXPECT_EQ(value, row.after);
  EXPECT_EQ(std::count(fake.log.begin(), fake.log.end(), "save 2"), row.after != row.start);
}

TEST_F(Menus, ViewersShowLastDigitsUntilAKeyIsPressed) {
  struct Row {
    chassis::ItemHandler* viewer;
    u32 value;
    u16 flag;
    int scans;  // of keys, the second of which gives one
    Lines drawn;
  };
  const Row rows[] = {
      {qamMenuGetQamInfo, 52007, 0x2001, 2, {"lcd 2 74 0 0 MHz", "lcd 2 16 10000000 0 52.007"}},
      {qamMenuGetQamInfo, 1000000, 0x2001, 2, {"lcd 2 74 0 0 MHz", "lcd 2 16 10000000 0 00.000"}},
      {qamMenuGetQamInfo, 52007, 0x2000, 0, {"lcd 2 74 0 0 MHz"}},
      {qamMenuGetQamTempr, 41, 0x2001, 2, {"lcd 2 74 0 0 \xA1\xE6", "lcd 2 16 10000000 0 41"}},
      {qamMenuGetQamTempr, 205, 0x2000, 2, {"lcd 2 74 0 0 \xA1\xE6", "lcd 2 16 10000000 0 05"}},
  };
  for (const auto& [viewer, value, flag, scans, lines] : rows) {
    record_->qam_para.rfreq = value;
    const item_t item{.id = 30, .flag = flag, .en = "Item"_label};
    int scanned = 0;
    fake.onKeyScan = [&] { return ++scanned < 2 ? chassis::kKeyNone : chassis::kKeyCancel; };
    EXPECT_EQ(viewer(&item, 2, 0), 0);
    Lines expected = lines;
    expected.insert(expected.begin(), "heading Item 0 10000000");
    EXPECT_EQ(drawn(), expected);
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

// ---- Random keys against the model; more of them with QAM_LONG ----

struct Edited {
  EditorModel::Kind kind;
  const char* label;
  u32 id, from, to;  // values begun with, some out of range
};

// Up, down, left or right; seldom none or a code that no key has; more seldom one that ends the editor.
u8 anyKey(std::mt19937& random) {
  const auto chance = random() % 100;
  if (chance < 3) return chance == 0 ? u8{0xFF} : static_cast<u8>(chance);
  if (chance < 9) return 0;
  return static_cast<u8>(chance < 15 ? 7 + random() % 248 : 3 + random() % 4);
}

TEST_F(Menus, AgreeWithTheModelAfterEachOfManyRandomKeys) {
  const long keys = std::getenv("QAM_LONG") != nullptr ? 1'000'000 : 20'000;
  std::mt19937 random(4);
  const auto below = [&](u32 n) { return static_cast<u32>(random() % n); };
  const Edited all[] = {{EditorModel::kSymbolRate, "Symbol Rate", 32, 4800, 7200},
                        {EditorModel::kFrequency, "RF Freq", 30, 0, 1100000},
                        {EditorModel::kLevel, "RF Level", 31, 930, 1170}};
  long pressed = 0;
  long written = 0;
  while (pressed < keys && !HasFailure()) {
    const Edited& edited = all[below(3)];
    const bool edits = below(8) != 0;
    u32& value = setting(edited.id);
    value = edited.from + below(edited.to - edited.from);
    u32 expected = value;
    EditorModel model(edited.kind, value);
    const item_t& item = *find(fmt::format("{}/{}", edits ? "QAM SET" : "QAM Sta./Ch.1", edited.label));
    Lines screen = edits ? model.edited() : model.shown();
    screen.insert(screen.begin(), {fmt::format("heading {} 0 10000000", edited.label), model.unit()});
    bool ended = false;
    fake.log.clear();
    fake.onKeyScan = [&]() -> u8 {
      EXPECT_EQ(drawn(), screen) << edited.label << " after " << pressed << " keys";
      EXPECT_FALSE(ended) << edited.label << " after " << pressed << " keys";
      if (HasFailure()) fake.leave();
      ++pressed;
      const u8 key = anyKey(random);
      screen.clear();
      if (key == chassis::kKeyNone) return key;
      ended =
          !edits || key == chassis::kKeyConfirm || key == chassis::kKeyCancel || key == chassis::kKeyLeave;
      if (edits && key == chassis::kKeyConfirm) expected = model.value();
      if (ended) return key;
      model.press(key);
      screen = model.edited();
      return key;
    };
    const u32 before = value;
    EXPECT_TRUE(fake.runs([&] { EXPECT_EQ(open(item), 0); }));
    EXPECT_TRUE(ended) << edited.label;
    EXPECT_EQ(value, expected) << edited.label << " after " << pressed << " keys";
    if (value != before) ++written;
    EXPECT_TRUE(drawn().empty());
    fake.accesses.clear();
    fake.steps.clear();
  }
  EXPECT_GT(written, keys / 1000);
  if (wanted != nullptr) fmt::print("{} keys, {} values written\n", pressed, written);
}

}  // namespace
}  // namespace test
