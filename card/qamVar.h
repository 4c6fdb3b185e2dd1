// The card's settings and readings by number, for the front panel, a management agent and the back end,
// through the descriptor's `getVar` and `setVar`. A setting is applied to the hardware at once and stored in
// the saved record. Tasks only; `semQamVar` serialises the callers.
#pragma once

#include "card/QamCardPara.h"
#include "card/qamVariables.h"
#include "hw/ad9775.h"
#include "platform/kernel.h"
#include "platform/types.h"
#include "qamcard/qamcard.h"

// A record that belongs to no slot; `QamSetVar1` uses its clock table.
extern QamCardPara QamPara;

// A buffer for a set of DAC registers, for a debug shell: nothing here uses it.
extern AD9775_Para Para9775;

extern "C" {

// The value; for a text its address (platform/address_word.h), in a buffer that the next text overwrites. 0
// for a number without a value, and for a slot without a record. A rate takes half a second. `portNo` and
// `str` are ignored.
u32 QamGetVar(u8 slotNo, u8 portNo, u32 vid, u8** str);

// 0 if set, or if the value was already set; -1 for a slot without a record, -2 if it cannot be set. After
// -1, and after any call for 51, the caller still holds semQamVar.
int QamSetVar(u8 slotNo, u8 portNo, u32 vid, u32 value);

// The older way to set, for chassis firmware that still uses it and for a debug shell.
void QamSetVar1(u8 slotNo, u8 portNo, u32 vid, u32 value);
}
