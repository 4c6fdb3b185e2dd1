// The MIB module (SMIv2) of the cards: the objects of every slot and the notifications of alarms, below a
// base.
#pragma once

#include <span>
#include <string>

#include "platform/types.h"

namespace mibs {

// The text of the module QAM-HEADEND-MIB.
std::string mibModule(std::span<const u32> base);

}  // namespace mibs
