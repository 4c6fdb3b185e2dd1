// What the chassis itself answers over the management socket, beside the variables of a channel: a card's
// settings and readings, the sections that an input carries, what the PID router holds, the PID search, calls
// of routines meant for a debug shell, the alarms and the front panel. docs/management-datagram.md describes
// the records. All throw Error.
#pragma once

#include <array>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "client/link.h"
#include "platform/router_word.h"
#include "protocol/alarms.h"
#include "protocol/panel.h"
#include "protocol/variables.h"

namespace client {

// The sections of that PID and table_id that the input carries now, each with a good CRC, by extension and
// number; empty while none has come. An input gathers PAT, CAT, NIT, SDT, BAT and the PMTs that its PAT
// names.
std::vector<Section> sourceSections(Link& link, const SourcePort& source, u16 pid, u8 tableId);

// What the router holds for the channel, by position.
std::vector<chassis::RouterWords> routerMap(Link& link, const Channel& channel);

// Begins or ends the search for packets of a PID that carry a table's sections, in what the channel sends.
// The search is one a card.
void search(Link& link, const Channel& channel, u16 pid, u8 tableId, bool on);
// Takes what has been captured, up to seven packets.
std::vector<Packet> searched(Link& link, const Channel& channel);

// Begins a routine of the slot's card in a task of its own; the number by which to ask for its end.
u32 beginCall(Link& link, u16 slot, const std::string& routine, std::span<const u32> arguments);
struct CallState {
  bool finished = false;
  std::string printed;  // debug lines so far
};
CallState callState(Link& link, u16 slot, u32 number);

// A variable of a card, by its id. A rate takes the card half a second.
VariableValue getVariable(Link& link, int slot, u32 id);
void setVariable(Link& link, int slot, u32 id, u32 value);

// Oldest first.
std::vector<Alarm> readAlarms(Link& link);
// The events from this number on that the chassis still keeps.
std::vector<AlarmEvent> readAlarmEvents(Link& link, std::uint64_t from);
// The number that the next event will have.
std::uint64_t nextAlarmEvent(Link& link);

LcdImage readLcd(Link& link);
// The chassis keeps the keys that its menu has not read yet, up to 64.
void pressKey(Link& link, chassis::PanelKey key);

}  // namespace client
