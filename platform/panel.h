// The chassis's front panel as a card driver uses it: menu items, the menu engine, the LCD of four rows and
// the keys. The engine, the LCD and the keypad belong to the chassis. Start-up registers items; only the menu
// task draws and reads keys, except that a failed start-up prints lines.
#pragma once

#include "platform/gbk.h"
#include "platform/types.h"

namespace chassis {

// A label of a menu item: text in the panel's encoding, padded with zeros; written "..."_label.
struct Label {
  char text[20];
};

// The languages of labels, in the order in which an operator changes from one to the next.
enum class Language : u8 { kEnglish, kChinese };
inline constexpr Language kLanguages[] = {Language::kEnglish, Language::kChinese};

// One line of a menu. A table is an array of them; `flag` marks the last.
struct item_t {
  static constexpr u32 kNoVariable = 0xFFFFFFFF;

  u32 id = kNoVariable;  // variable; kNoVariable for navigation and options
  u16 val = 0;           // of an option: its value of the variable; of a root: the slot
  u16 flag = 0;          // kLast and the others below
  u32 minVal = 0;        // with kHandler, the address word of an `ItemHandler`
  u32 maxVal = 0;
  const char* postfix = "";         // unit after a value
  const item_t* submenu = nullptr;  // the table below, or the table of options; null for leaves
  Label zh = {};                    // GBK
  Label en = {};                    // ASCII

  Label& label(Language language) { return language == Language::kChinese ? zh : en; }
  const Label& label(Language language) const { return language == Language::kChinese ? zh : en; }

  static constexpr u16 kReadOnly = 0x0001;  // of a handler: only shows, does not edit
  static constexpr u16 kLast = 0x0002;      // of its table
  static constexpr u16 kSettable = 0x0004;  // of an option item: the operator may choose
  static constexpr u16 kOptions = 0x0008;   // `submenu` holds options for the variable's value
  static constexpr u16 kText = 0x0800;      // the variable reads a text
  static constexpr u16 kHandler = 0x2000;   // `minVal` names the routine that shows or edits the value
};

// The engine calls this for an item with `kHandler`, in the menu task. The handler has LCD and keys until it
// returns: 0, or -1 for a null item.
using ItemHandler = long(const item_t* item, u8 slotNo, u32 port);

// Attributes of lines and headings.
inline constexpr u32 kPanelValue = 0x10000000;
inline constexpr int kPanelWholeLine = 0x20000000;  // instead of a column: redraws the line from column 0

enum PanelKey : u8 {
  kKeyNone = 0,
  kKeyConfirm = 1,
  kKeyCancel = 2,
  kKeyUp = 3,
  kKeyDown = 4,
  kKeyLeft = 5,
  kKeyRight = 6,
  kKeyLeave = 0xFF,  // no key for a long time: leave, and save nothing
};

extern "C" {

// Gives a card's root item to the engine, which copies it: the next card of the same kind may reuse the
// record.
void menuRegister(item_t* root);

// Empties the LCD and draws the item's heading line.
void menuDispItem(const item_t* item, int arg2, u32 attribute);

// Draws text on row 0..3 from a column in pixels, 0..127. `mask` inverts characters, bit 31 the first.
[[gnu::format(printf, 5, 6)]] void lcdPrintf(int row, int column, u32 attribute, u32 mask, const char* format,
                                             ...);

// The key pressed, a PanelKey; without a key it waits for one system tick and returns kKeyNone.
u8 keyScan();

}  // extern "C"
}  // namespace chassis

// A label's text in the panel's encoding. A text that does not fit with its final zero is a compile error.
template <gbk::Utf8 S>
constexpr chassis::Label operator""_label() {
  static_assert(gbk::kConverted<S>.length() < sizeof(chassis::Label));
  chassis::Label label{};
  for (std::size_t i = 0; i < gbk::kConverted<S>.length(); ++i) label.text[i] = gbk::kConverted<S>.text[i];
  return label;
}
