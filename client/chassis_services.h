// What the chassis itself answers over the management socket, beside the cards: the sections that an input
// carries, what the PID router holds, the PID search, and calls of routines meant for a debug shell. Records
// are big-endian; docs/management-datagram.md describes them.
#pragma once

#include <array>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "client/channel.h"
#include "client/link.h"
#include "client/psi_tables.h"

namespace client {

// The chassis refused; what() says why.
class ServiceError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Asks the chassis to carry out an operation; the data of its reply. `what` it is for stands in errors.
// Throws ServiceError or LinkError.
Bytes ask(Link& link, Operation operation, const Channel& place, Bytes data, const std::string& what);
// Throws ServiceError: the reply has not the form that this program knows.
[[noreturn]] void misshapen(const std::string& what);

// An input of a source card; both count from 0 here and from 1 for operators.
struct SourcePort {
  u16 slot = 0;
  u32 port = 0;
  auto operator<=>(const SourcePort&) const = default;
};

inline constexpr u32 kInputsPerCard = 16;  // that a router word can tell apart

std::string inputName(const SourcePort& source);  // "input 6.1"
// "6.1", slot and input from 1; nothing for any other text.
std::optional<SourcePort> parseSourcePort(std::string_view text);

// The sections of that PID and table_id that the input carries now, each with a good CRC, by extension and
// number; empty while none has come. An input gathers PAT, CAT, NIT, SDT, BAT and the PMTs that its PAT
// names. Throws ServiceError (no such input) or LinkError.
std::vector<Section> sourceSections(Link& link, const SourcePort& source, u16 pid, u8 tableId);

// The three words of a router position, lowest first.
using RouterWords = std::array<u16, 3>;
inline constexpr std::size_t kRouterPositions = 256;
// Throws ServiceError or LinkError.
std::vector<RouterWords> routerMap(Link& link, const Channel& channel);

// Begins or ends the search for packets of a PID that carry a table's sections, in what the channel sends.
// The search is one a card. Throws ServiceError or LinkError.
void search(Link& link, const Channel& channel, u16 pid, u8 tableId, bool on);
// Takes what has been captured, up to seven packets. Throws as above.
std::vector<Packet> searched(Link& link, const Channel& channel);

// Begins a routine of the slot's card in a task of its own; the number by which to ask for its end.
u32 beginCall(Link& link, u16 slot, const std::string& routine, std::span<const u32> arguments);
struct CallState {
  bool finished = false;
  std::string printed;  // debug lines so far
};
CallState callState(Link& link, u16 slot, u32 number);

}  // namespace client
