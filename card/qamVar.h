// The card's settings and readings by number: what the front panel, a management agent and the back end reach
// through the descriptor's `getVar` and `setVar`. A setting goes to the hardware at once and into the saved
// record. Tasks only; the callers of all three take turns by `semQamVar`.
#pragma once

#include "card/QamCardPara.h"
#include "card/qamVariables.h"
#include "hw/ad9775.h"
#include "platform/kernel.h"
#include "platform/types.h"

// The chassis's mutex, which its owner may take again; null: callers do not wait for each other.
extern os::SEM_ID semQamVar;

// A record of no slot, whose clock table `QamSetVar1` uses.
extern QamCardPara QamPara;

// Room for a set of DAC registers, for a debug shell: nothing here uses it.
extern AD9775_Para Para9775;

extern "C" {

// The value; of a text its address (platform/address_word.h), in a buffer that the next text overwrites. 0
// for a number without a value, and for a slot without a record. A rate takes half a second. `portNo` and
// `str` are not looked at.
u32 QamGetVar(u8 slotNo, u8 portNo, u32 vid, u8** str);

// 0 when set, or when it was so already; -1 for a slot without a record, -2 for what cannot be set. After -1,
// and after any call for 51, the caller still holds semQamVar.
int QamSetVar(u8 slotNo, u8 portNo, u32 vid, u32 value);

// The older way to set, for chassis firmware that still calls it and for a debug shell.
void QamSetVar1(u8 slotNo, u8 portNo, u32 vid, u32 value);
}
