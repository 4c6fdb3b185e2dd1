// The MIB module (SMIv2) of the cards: the objects of every slot and the notifications of alarms, below a
// base.
#pragma once

#include <array>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/types.h"

namespace client {

inline constexpr std::size_t kMibBaseLength = 10;  // a card finds its slot behind so many components

// Below netSnmpPlaypen of NET-SNMP-MIB, which is there for tries.
inline constexpr std::array<u32, kMibBaseLength> kDefaultMibBase = {1, 3, 6, 1, 4, 1, 8072, 9999, 9999, 27};

// "1.3.6.1.4.1.8072.9999.9999.27"
std::string mibBaseText(std::span<const u32> base);

// A base from its text, which may begin with a dot. Throws std::invalid_argument, which says what is wrong
// and what is right.
std::vector<u32> parseMibBase(std::string_view text);

// The text of the module QAM-HEADEND-MIB.
std::string mibModule(std::span<const u32> base);

}  // namespace client
