#include "ui/qamMenu.h"

#include <algorithm>

#include "card/qamVar.h"
#include "platform/address_word.h"

using chassis::item_t;
using os::addressWord;

namespace {

// ---- The tree ----

constexpr u16 kLast = chassis::kItemLast;
constexpr u16 kViewOption = 0x1400 | chassis::kItemOptions;
constexpr u16 kSetOption = chassis::kItemOptions | chassis::kItemSettable;
constexpr u16 kView = chassis::kItemHandler | chassis::kItemReadOnly;
constexpr u16 kEdit = chassis::kItemHandler;
constexpr u16 kText = chassis::kItemText;

// clang-format off

constexpr item_t menuQamMode[] = {
    {.val = 5,                .zh = "64"_label,  .en = "64"_label},
    {.val = 6,                .zh = "128"_label, .en = "128"_label},
    {.val = 7, .flag = kLast, .zh = "256"_label, .en = "256"_label},
};

// Each has the name that would suit the other: the switch of the RF output, "power" among the variables, is on
// with 15, that of the modulation with 0.
constexpr item_t menuOnoff[] = {
    {.val = 15,               .zh = "打开"_label, .en = "On"_label},
    {.val = 0, .flag = kLast, .zh = "关闭"_label, .en = "Off"_label},
};
constexpr item_t menuRFOnoff[] = {
    {.val = 0,                .zh = "打开"_label, .en = "On"_label},
    {.val = 1, .flag = kLast, .zh = "关闭"_label, .en = "Off"_label},
};

constexpr item_t menuQamVer[] = {
    {.id = kVarHardwareVersion, .flag = kText,         .zh = "硬件版本"_label, .en = "HARD Ver."_label},
    {.id = kVarSoftwareVersion, .flag = kText,         .zh = "软件版本"_label, .en = "MCU Ver."_label},
    {.id = kVarFpgaVersion,     .flag = kText | kLast, .zh = "逻辑版本"_label, .en = "FPGA Ver."_label},
};

const item_t menuQam1[] = {
    {.id = kVarConstellation,  .flag = kViewOption,         .submenu = menuQamMode,
     .zh = "调制模式"_label,   .en = "Qam Mode"_label},
    {.id = kVarSymbolRate,     .flag = kView,               .minVal = addressWord(qamMenuSetSymRate),
     .zh = "符号率"_label,     .en = "Symbol Rate"_label},
    {.id = kVarFrequency,      .flag = kView,               .minVal = addressWord(qamMenuSetRfFreq),
     .zh = "输出频率"_label,   .en = "RF Freq"_label},
    {.id = kVarLevel,          .flag = kView,               .minVal = addressWord(qamMenuSetRfLevel),
     .zh = "输出电平"_label,   .en = "RF Level"_label},
    {.id = kVarPower,          .flag = kViewOption,         .submenu = menuOnoff,
     .zh = "输出开关"_label,   .en = "RF Switch"_label},
    {.id = kVarQamSwitch,      .flag = kViewOption | kLast, .submenu = menuRFOnoff,
     .zh = "调制开关"_label,   .en = "QAM Switch"_label},
};

const item_t menuQam2[] = {
    {.id = kVarConstellation2, .flag = kViewOption,         .submenu = menuQamMode,
     .zh = "调制模式"_label,   .en = "Qam Mode"_label},
    {.id = kVarSymbolRate2,    .flag = kView,               .minVal = addressWord(qamMenuSetSymRate),
     .zh = "符号率"_label,     .en = "Symbol Rate"_label},
    {.id = kVarFrequency2,     .flag = kView,               .minVal = addressWord(qamMenuSetRfFreq),
     .zh = "输出频率"_label,   .en = "RF Freq"_label},
    {.id = kVarLevel2,         .flag = kView,               .minVal = addressWord(qamMenuSetRfLevel),
     .zh = "输出电平"_label,   .en = "RF Level"_label},
    {.id = kVarPower2,         .flag = kViewOption,         .submenu = menuOnoff,
     .zh = "输出开关"_label,   .en = "RF Switch"_label},
    {.id = kVarQamSwitch2,     .flag = kViewOption | kLast, .submenu = menuRFOnoff,
     .zh = "调制开关"_label,   .en = "QAM Switch"_label},
};

// Channel 1's alone: channel 2 goes with it. The switches' English names are not those of the status, in which
// "RF Switch" is the other one; manuals show both as they are.
const item_t menuQamSet[] = {
    {.id = kVarConstellation,  .flag = kSetOption,          .submenu = menuQamMode,
     .zh = "调制模式"_label,   .en = "Qam Mode"_label},
    {.id = kVarSymbolRate,     .flag = kEdit,               .minVal = addressWord(qamMenuSetSymRate),
     .zh = "符号率"_label,     .en = "Symbol Rate"_label},
    {.id = kVarFrequency,      .flag = kEdit,               .minVal = addressWord(qamMenuSetRfFreq),
     .zh = "输出频率"_label,   .en = "RF Freq"_label},
    {.id = kVarLevel,          .flag = kEdit,               .minVal = addressWord(qamMenuSetRfLevel),
     .zh = "输出电平"_label,   .en = "RF Level"_label},
    {.id = kVarPower,          .flag = kSetOption,          .submenu = menuOnoff,
     .zh = "输出开关"_label,   .en = "Power Switch"_label},
    {.id = kVarQamSwitch,      .flag = kSetOption | kLast,  .submenu = menuRFOnoff,
     .zh = "调制开关"_label,   .en = "RF Switch"_label},
};

constexpr item_t menuQamSts[] = {
    {               .submenu = menuQamVer, .zh = "版本"_label,  .en = "Version"_label},
    {               .submenu = menuQam1,   .zh = "频点1"_label, .en = "Ch.1"_label},
    {.flag = kLast, .submenu = menuQam2,   .zh = "频点2"_label, .en = "Ch.2"_label},
};

constexpr item_t menuQamMain[] = {
    {               .submenu = menuQamSts, .zh = "调制器状态"_label, .en = "QAM Sta."_label},
    {.flag = kLast, .submenu = menuQamSet, .zh = "调制器设置"_label, .en = "QAM SET"_label},
};

// clang-format on

// ---- The screens ----

constexpr int kRow = 2;
constexpr int kFirstColumn = 16;
constexpr int kNoCursor = -1;
constexpr int kNoPoint = -1;

// A value's last digits as characters, with a point among them.
struct Digits {
  int size;
  int point;
};
constexpr Digits kFrequencyDigits = {.size = 8, .point = 4};
constexpr int kLongest = kFrequencyDigits.size;  // of all values

struct Unit {
  int column;
  const char* text;
};

// Writes no closing zero.
void render(const Digits& digits, u32 value, char* text) {
  for (int i = digits.size - 1; i >= 0; --i) {
    if (i == digits.point) {
      text[i] = '.';
      continue;
    }
    text[i] = static_cast<char>('0' + value % 10);
    value /= 10;
  }
}

// A step may leave a character that is no digit: it counts for less than 0 or more than 9.
u32 valueOf(const Digits& digits, const char* text) {
  u32 value = 0;
  for (int i = 0; i < digits.size; ++i) {
    if (i != digits.point) value = value * 10 + static_cast<u32>(text[i] - '0');
  }
  return value;
}

// The text is its own format, for none here has a conversion; a pointer that promises no format keeps
// compilers from doubting it.
void print(int column, u32 attribute, u32 mask, const char* text) {
  void (*const lcd)(int, int, u32, u32, const char*, ...) = chassis::lcdPrintf;
  lcd(kRow, column, attribute, mask, text);
}

void printValue(u32 mask, const char* text, int column = kFirstColumn) {
  print(column, chassis::kPanelValue, mask, text);
}

// Opens the screen with heading and unit; the value that belongs there.
u32 openScreen(const Unit& unit, const item_t* item, u8 slotNo, u32 port) {
  chassis::menuDispItem(item, 0, chassis::kPanelValue);
  const u32 value = QamGetVar(slotNo, static_cast<u8>(port), item->id, nullptr);
  print(unit.column, 0, 0, unit.text);
  return value;
}

void waitForKey() {
  while (chassis::keyScan() == chassis::kKeyNone) {
  }
}

bool isReadOnly(const item_t* item) {
  return (item->flag & chassis::kItemReadOnly) != 0;
}

// ---- The editors ----

struct Editor {
  QamBounds bounds;
  Digits digits;
  Unit unit;
  int lastStop;  // last stop of the cursor, which stops at every character except the decimal point
  void (*draw)(const char* text, int cursor);
  void (*step)(char* text, int cursor, bool up);
};

int moved(const Editor& editor, int cursor, bool right) {
  do {
    if (right) {
      cursor = cursor == editor.lastStop ? 0 : cursor + 1;
    } else {
      cursor = cursor == 0 ? editor.lastStop : cursor - 1;
    }
  } while (cursor == editor.digits.point);
  return cursor;
}

// The screen of one item, from its heading to the key that ends it.
long run(const Editor& editor, const item_t* item, u8 slotNo, u32 port) {
  if (item == nullptr) return -1;
  char text[kLongest + 1] = {};
  const auto show = [&](u32 value) {
    render(editor.digits, std::clamp(value, editor.bounds.least, editor.bounds.most), text);
  };
  show(openScreen(editor.unit, item, slotNo, port));
  if (isReadOnly(item)) {
    editor.draw(text, kNoCursor);
    waitForKey();
    return 0;
  }

  int cursor = 0;
  editor.draw(text, cursor);
  for (;;) {
    const u8 key = chassis::keyScan();
    switch (key) {
      case chassis::kKeyNone:
        continue;
      case chassis::kKeyConfirm:
        QamSetVar(slotNo, static_cast<u8>(port), item->id, valueOf(editor.digits, text));
        return 0;
      case chassis::kKeyCancel:
      case chassis::kKeyLeave:
        return 0;
      case chassis::kKeyUp:
      case chassis::kKeyDown:
        editor.step(text, cursor, key == chassis::kKeyUp);
        show(valueOf(editor.digits, text));
        break;
      case chassis::kKeyLeft:
      case chassis::kKeyRight:
        cursor = moved(editor, cursor, key == chassis::kKeyRight);
        break;
      default:
        break;
    }
    editor.draw(text, cursor);
  }
}

void drawWhole(const char* text, int cursor) {
  printValue(cursor == kNoCursor ? 0 : 0x80000000U >> cursor, text);
}

// One up or down; from `last` on to `next`.
void turn(char& digit, int by, char last, char next) {
  digit = digit == last ? next : static_cast<char>(digit + by);
}

void stepDigit(char* text, int cursor, bool up) {
  if (up) {
    turn(text[cursor], 1, '9', '0');
  } else {
    turn(text[cursor], -1, '0', '9');
  }
}

// ---- Symbol rate: a digit, and the fraction as a whole ----

constexpr int kFraction = 2;

// Two texts; mask 1 inverts none of their characters.
void drawSymbolRate(const char* text, int cursor) {
  const bool inFraction = cursor == kFraction;
  const char integer[] = {text[0], text[1], '\0'};
  printValue(cursor == kNoCursor ? 0 : inFraction ? 1 : 0x80000000U, integer);
  printValue(inFraction ? 0xE0000000U : 1, text + kFraction, kFirstColumn + 16);
}

// The fraction counts in eighths, and nothing is carried. One between them runs past the ends in sixteen
// bits, of which three decimal digits are taken: .900 goes up to .025, .050 down to .461. Such rates come
// from management alone, and no step from them has a better answer.
void stepSymbolRate(char* text, int cursor, bool up) {
  if (cursor != kFraction) {
    stepDigit(text, cursor, up);
    return;
  }
  constexpr Digits kDigits = {.size = 3, .point = kNoPoint};
  constexpr u16 kEighth = 125;
  constexpr u16 kHighest = 1000 - kEighth;
  auto fraction = static_cast<u16>(valueOf(kDigits, text + kFraction));
  if (up) {
    fraction = fraction == kHighest ? 0 : static_cast<u16>(fraction + kEighth);
  } else {
    fraction = fraction == 0 ? kHighest : static_cast<u16>(fraction - kEighth);
  }
  render(kDigits, fraction, text + kFraction);
}

// "Mbps" for MBd: the word that operators of these panels know.
constexpr Editor kSymbolRate = {.bounds = kSymbolRateBounds,
                                .digits = {.size = 5, .point = 1},
                                .unit = {.column = 70, .text = "Mbps"},
                                .lastStop = kFraction,
                                .draw = drawSymbolRate,
                                .step = stepSymbolRate};

// ---- RF frequency ----

constexpr Editor kRfFreq = {.bounds = kFrequencyBounds,
                            .digits = kFrequencyDigits,
                            .unit = {.column = 82, .text = "MHz"},
                            .lastStop = 7,
                            .draw = drawWhole,
                            .step = stepDigit};

// ---- RF level: tenths in steps of five ----

constexpr int kTenths = 4;

void stepLevel(char* text, int cursor, bool up) {
  if (cursor == kTenths) {
    if (up) {
      turn(text[cursor], 5, '5', '0');
    } else {
      turn(text[cursor], -5, '0', '5');
    }
  } else if (up) {
    turn(text[cursor], 1, '9', '0');
  } else {
    turn(text[cursor], -1, '0', '1');  // a '9' in the tens would be the upper limit
  }
}

constexpr Editor kRfLevel = {.bounds = kLevelBounds,
                             .digits = {.size = 5, .point = 3},
                             .unit = {.column = 70, .text = "dBuV"},
                             .lastStop = kTenths,
                             .draw = drawWhole,
                             .step = stepLevel};

static_assert(kLongest == std::max({kSymbolRate.digits.size, kRfFreq.digits.size, kRfLevel.digits.size}));

}  // namespace

item_t qamMenuInit = {.flag = chassis::kItemReadOnly | kLast,
                      .submenu = menuQamMain,
                      .zh = "QAM卡1"_label,
                      .en = "QAM card1"_label};

long qamMenuSetSymRate(const item_t* item, u8 slotNo, u32 port) {
  return run(kSymbolRate, item, slotNo, port);
}

long qamMenuSetRfFreq(const item_t* item, u8 slotNo, u32 port) {
  return run(kRfFreq, item, slotNo, port);
}

long qamMenuSetRfLevel(const item_t* item, u8 slotNo, u32 port) {
  return run(kRfLevel, item, slotNo, port);
}

long qamMenuGetQamInfo(const item_t* item, u8 slotNo, u32 port) {
  if (item == nullptr) return -1;
  char text[kLongest + 1] = {};
  render({.size = 6, .point = 2}, openScreen({.column = 74, .text = "MHz"}, item, slotNo, port), text);
  if (!isReadOnly(item)) return 0;
  printValue(0, text);
  waitForKey();
  return 0;
}

long qamMenuGetQamTempr(const item_t* item, u8 slotNo, u32 port) {
  if (item == nullptr) return -1;
  char text[kLongest + 1] = {};
  render({.size = 2, .point = kNoPoint}, openScreen({.column = 74, .text = "℃"_gbk}, item, slotNo, port),
         text);
  printValue(0, text);
  waitForKey();
  return 0;
}
