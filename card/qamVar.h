// The card's settings and readings by number: what the front panel, a management agent and the back end reach
// through the descriptor's `getVar` and `setVar`. A setting goes to the hardware at once and into the saved
// record. Tasks only; the callers of all three take turns by `semQamVar`.
#pragma once

#include "card/QamCardPara.h"
#include "hw/ad9775.h"
#include "platform/kernel.h"
#include "platform/types.h"

// Numbers of the variables, which are those of the card's menu items. Channel 2 has the settings of channel
// 1, 8 MHz higher.
enum QamVariable : u32 {
  kVarFrequency = 30,      // kHz
  kVarLevel = 31,          // 0.1 dBuV
  kVarSymbolRate = 32,     // kBd
  kVarConstellation = 33,  // 5 64-QAM, 6 128-QAM, 7 256-QAM
  kVarQamSwitch = 34,      // 0 on, 1 off
  kVarPower = 35,          // 15 on, 0 off
  kVarTotalRate1 = 36,     // text
  kVarPayloadRate1 = 37,   // text
  kVarFrequency2 = 38,
  kVarLevel2 = 39,
  kVarSymbolRate2 = 40,
  kVarConstellation2 = 41,
  kVarQamSwitch2 = 42,
  kVarPower2 = 43,
  kVarTotalRate2 = 44,    // text
  kVarPayloadRate2 = 45,  // text
  kVarTemperature1 = 47,  // degrees, as get_temper gives them
  kVarTemperature2 = 48,
  kVarSoftwareVersion = 49,  // text
  kVarFpgaVersion = 50,      // text
  kVarKeepsLock = 51,        // never to be set: see QamSetVar
  kVarHardwareVersion = 52,  // text
};

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
