// The objects of a card's MIB, in the order of their names: scalars below the base of a slot, each a variable
// of the card. Included by the card, the chassis and the generator of the MIB module.
#pragma once

#include "card/qamVariables.h"

inline constexpr int kMibBaseLength = 10;  // components of the chassis's base
inline constexpr u32 kMibFirstSlot = 2;    // the component after it is the slot, from here on

struct QamMibRow {
  u32 suffix[4];
  QamVariable variable;
  bool isText;
  bool writable;
};

// clang-format off
inline constexpr QamMibRow kMibRows[] = {
    {{1, 19, 1, 1}, kVarHardwareVersion, true, false},
    {{1, 19, 1, 2}, kVarSoftwareVersion, true, false},
    {{1, 19, 1, 3}, kVarFpgaVersion,     true, false},

    {{2, 51, 1, 3}, kVarConstellation, false, true},
    {{2, 51, 1, 4}, kVarFrequency,     false, true},
    {{2, 51, 1, 5}, kVarLevel,         false, true},
    {{2, 51, 1, 6}, kVarQamSwitch,     false, true},
    {{2, 51, 1, 7}, kVarPower,         false, true},
    {{2, 51, 1, 8}, kVarSymbolRate,    false, true},

    {{3, 51, 1, 11}, kVarConstellation2, false, false},
    {{3, 51, 1, 12}, kVarFrequency2,     false, false},
    {{3, 51, 1, 13}, kVarLevel2,         false, false},
    {{3, 51, 1, 14}, kVarQamSwitch2,     false, false},
    {{3, 51, 1, 15}, kVarPower2,         false, true},  // written without an effect
    {{3, 51, 1, 16}, kVarSymbolRate2,    false, false},
};
// clang-format on
