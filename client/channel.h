// One output of a card: counted from 1 by operators ("1.2" is channel 2 of the card in slot 1), from 0 on the
// wire and in the code. Used by every program that takes a channel or an interval on its command line.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "client/psi_tables.h"
#include "platform/types.h"

namespace client {

inline constexpr u16 kSlots = 6;
inline constexpr u32 kPortsPerCard = 2;

struct Channel {
  u16 slot = 0;  // 0 to 5
  u32 port = 0;  // 0 to 1

  auto operator<=>(const Channel&) const = default;
};

// "N.P" with N from 1 to 6 and P from 1 to 2; nothing for any other text.
std::optional<Channel> parseChannel(std::string_view text);

// "N.P", as parseChannel reads it.
std::string channelName(const Channel& channel);

// Ticks of the chassis's auxiliary clock from the start of a section (of the PMT list as a whole) to the
// start of the next one; 0 stops the table.
using Intervals = std::map<TableType, u32>;
inline constexpr u32 kMaxInterval = 65535;

// "TABLE=TICKS", TICKS a decimal number up to kMaxInterval. Throws std::invalid_argument, which says what is
// wrong.
std::pair<TableType, u32> parseInterval(std::string_view text);

}  // namespace client
