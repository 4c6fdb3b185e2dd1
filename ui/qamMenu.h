// The card's part of the chassis's front panel: the tree of menu items, and the routines for items that need
// a screen of their own. The chassis's menu engine walks the one and calls the other, in its menu task, for
// any slot with such a card. Values are read and set by number (card/qamVar.h), never past them.
#pragma once

#include "platform/panel.h"
#include "platform/types.h"

// The root of the tree: the one item that changes. Each registration names it for its slot; there is one for
// all cards, for `menuRegister` copies it.
extern chassis::item_t qamMenuInit;

extern "C" {

// Editors of item->id's value, digit by digit, in kBd, kHz and 0.1 dBuV; the cursor is moved with left and
// right. They write on confirm only. For an item with kReadOnly they show the value until a key is pressed.
// 0, or -1 for a null item.
long qamMenuSetSymRate(const chassis::item_t* item, u8 slotNo, u32 port);  // 5000..7000
long qamMenuSetRfFreq(const chassis::item_t* item, u8 slotNo, u32 port);   // 52000..1000000
long qamMenuSetRfLevel(const chassis::item_t* item, u8 slotNo, u32 port);  // 950..1150

// Viewers of item->id's value, for trees of a chassis's own: MHz, when the item has kReadOnly, and degrees
// Celsius. 0, or -1 for a null item.
long qamMenuGetQamInfo(const chassis::item_t* item, u8 slotNo, u32 port);
long qamMenuGetQamTempr(const chassis::item_t* item, u8 slotNo, u32 port);
}
