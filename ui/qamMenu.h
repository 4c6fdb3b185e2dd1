// The card's part of the chassis's front panel: the tree of menu items, and the routines for items that need
// their own screen. The chassis's menu engine reads the tree and calls the routines, in its menu task, for
// any slot with such a card. Values are read and set only by number (card/qamVar.h).
#pragma once

#include "platform/panel.h"
#include "platform/types.h"

// The root of the tree: the only item that changes. Each registration sets it for its slot; one object is
// enough for all cards, because `menuRegister` copies it.
extern chassis::item_t qamMenuInit;

extern "C" {

// Editors of item->id's value, digit by digit, in kBd, kHz and 0.1 dBuV; left and right move the cursor. They
// write on confirm only. For an item with kItemReadOnly they show the value until a key is pressed. 0, or -1
// for a null item.
long qamMenuSetSymRate(const chassis::item_t* item, u8 slotNo, u32 port);  // 5000..7000
long qamMenuSetRfFreq(const chassis::item_t* item, u8 slotNo, u32 port);   // 52000..1000000
long qamMenuSetRfLevel(const chassis::item_t* item, u8 slotNo, u32 port);  // 950..1150

// Viewers of item->id's value, for menu trees of a chassis: MHz, if the item has kItemReadOnly, and degrees
// Celsius. 0, or -1 for a null item.
long qamMenuGetQamInfo(const chassis::item_t* item, u8 slotNo, u32 port);
long qamMenuGetQamTempr(const chassis::item_t* item, u8 slotNo, u32 port);
}
