// The numbers of a card's variables, which are those of its menu items. Channel 2 has the settings of channel
// 1, at a frequency 8 MHz higher.
#pragma once

#include "platform/types.h"

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
  kVarTemperature1 = 47,  // degrees, from get_temper
  kVarTemperature2 = 48,
  kVarSoftwareVersion = 49,  // text
  kVarFpgaVersion = 50,      // text
  kVarKeepsLock = 51,        // must never be set: see QamSetVar
  kVarHardwareVersion = 52,  // text
};

inline constexpr u32 kChannelSpacing_kHz = 8000;  // from channel 1 to channel 2

// Bounds of a setting, in its unit. The card does not check them: its menus, the chassis and clients do.
struct QamBounds {
  u32 least, most;
};
inline constexpr QamBounds kFrequencyBounds = {52000, 1000000};
inline constexpr QamBounds kLevelBounds = {950, 1150};
inline constexpr QamBounds kSymbolRateBounds = {5000, 7000};
