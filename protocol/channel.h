// Names of places for operators: an output of a card, an input of a source card. They count from 1 in texts
// ("1.2" is channel 2 of the card in slot 1), from 0 in datagrams and in the code.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "mpeg/tables.h"
#include "platform/numbers.h"

namespace protocol {

struct Channel {
  u16 slot = 0;
  u32 port = 0;
  auto operator<=>(const Channel&) const = default;
};
struct SourcePort {
  u16 slot = 0;
  u32 port = 0;
  auto operator<=>(const SourcePort&) const = default;
};

// A fault that a chassis can inject, and where: on a card, on all cards, or at an input of a source card.
struct FaultPlace {
  std::optional<u16> slot;   // nullopt: all cards
  std::optional<u32> input;  // of kInputLost
  std::string name;
  bool operator==(const FaultPlace&) const = default;
};
inline constexpr std::string_view kInputLost = "input-lost";

// "NAME", "N.NAME" or "N.P.input-lost"; nullopt for a slot or an input that cannot be. The name may be
// unknown.
std::optional<FaultPlace> parseFault(std::string_view text);
std::string faultName(const FaultPlace& place);

// "N", a slot; from 0.
std::optional<int> parseSlot(std::string_view text);
// "N.P"; nullopt for any other text.
std::optional<Channel> parseChannel(std::string_view text);
std::optional<SourcePort> parseSourcePort(std::string_view text);

std::string channelName(const Channel& channel);  // "1.2"
std::string inputName(const SourcePort& source);  // "input 6.1"

// Ticks of the chassis's auxiliary clock from the start of a section (of the PMT list as a whole) to the
// start of the next one; 0 stops the table.
using Intervals = std::map<PsiType, u32>;
inline constexpr u32 kMaxInterval = 65535;

// "TABLE=TICKS", TICKS a decimal number up to kMaxInterval. Throws std::invalid_argument with the error.
std::pair<PsiType, u32> parseInterval(std::string_view text);

}  // namespace protocol
