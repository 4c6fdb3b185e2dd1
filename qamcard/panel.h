// The chassis's front panel as a card driver uses it: menu items, the menu engine, the LCD of four rows and
// the keys. The engine, the LCD and the keypad belong to the chassis. Start-up registers items; only the menu
// task draws and reads keys, except that a failed start-up prints lines.
#pragma once

#include "qamcard/types.h"

// The module's own tables leave fields away that are not used.
#if defined(__cplusplus) && defined(QAM_NAMESPACES)
#define QAM_DEFAULT(value) = value
#else
#define QAM_DEFAULT(value)
#endif

QAM_BEGIN(chassis)

// A label of a menu item: text in the panel's encoding, padded with zeros.
struct Label {
  char text[20];
};

// One line of a menu. A table is an array of them; `flag` marks the last.
struct item_t {
  u32 id QAM_DEFAULT(0xFFFFFFFF);  // variable; 0xFFFFFFFF for navigation and options
  u16 val QAM_DEFAULT(0);          // of an option: its value of the variable; of a root: the slot
  u16 flag QAM_DEFAULT(0);         // bits of ItemFlag
  u32 minVal QAM_DEFAULT(0);       // with kItemHandler, the address of an `ItemHandler` as a number
  u32 maxVal QAM_DEFAULT(0);
  const char* postfix QAM_DEFAULT("");             // unit after a value
  const struct item_t* submenu QAM_DEFAULT(NULL);  // the table below, or of options; null for leaves
  struct Label zh QAM_DEFAULT({});                 // GBK
  struct Label en QAM_DEFAULT({});                 // ASCII
};
typedef struct item_t item_t;
QAM_LAYOUT(sizeof(void*) != 4 || sizeof(struct item_t) == 64);

enum ItemFlag {
  kItemReadOnly = 0x0001,  // of a handler: only shows, does not edit
  kItemLast = 0x0002,      // of its table
  kItemSettable = 0x0004,  // of an option item: the operator may choose
  kItemOptions = 0x0008,   // `submenu` holds options for the variable's value
  kItemText = 0x0800,      // the variable reads a text
  kItemHandler = 0x2000    // `minVal` names the routine that shows or edits the value
};

// The engine calls this for an item with kItemHandler, in the menu task. The handler has LCD and keys until
// it returns: 0, or -1 for a null item.
typedef long ItemHandler(const struct item_t* item, u8 slotNo, u32 port);

enum PanelKey {
  kKeyNone = 0,
  kKeyConfirm = 1,
  kKeyCancel = 2,
  kKeyUp = 3,
  kKeyDown = 4,
  kKeyLeft = 5,
  kKeyRight = 6,
  kKeyLeave = 0xFF  // no key for a long time: leave, and save nothing
};

// Gives a card's root item to the engine, which copies it: the next card of the same kind may reuse the
// record.
void menuRegister(struct item_t* root);

// Empties the LCD and draws the item's heading line. Attribute 0x10000000 is that of a value's heading.
void menuDispItem(const struct item_t* item, int arg2, u32 attribute);

// Draws text on row 0..3 from a column in pixels, 0..127; column 0x20000000 redraws the line from its begin.
// `mask` inverts characters, bit 31 the first.
void lcdPrintf(int row, int column, u32 attribute, u32 mask, const char* format, ...) QAM_PRINTF(5, 6);

// The key pressed, a PanelKey; without a key it waits for one system tick and returns kKeyNone.
u8 keyScan(void);

QAM_END
