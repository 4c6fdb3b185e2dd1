// Services of the chassis on the management socket, in addition to the variables of a channel: a card's
// settings and readings, the sections on an input, the map in the PID router, the PID search, calls of
// routines for a debug shell, the alarms and the front panel. docs/management-datagram.md describes the
// records. All functions throw Error.
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
#include "protocol/stream_records.h"
#include "protocol/variables.h"

namespace client {

// The current sections of that PID and table_id on the input, each with a correct CRC, by extension and
// number; empty if none has arrived. An input collects PAT, CAT, NIT, SDT, BAT and the PMTs that its PAT
// names.
std::vector<Section> sourceSections(Link& link, const SourcePort& source, u16 pid, u8 tableId);

// The router's map for the channel, by position.
std::vector<chassis::RouterWords> routerMap(Link& link, const Channel& channel);

// Starts or stops the search for packets of a PID that have sections of a table, in the channel's output.
// There is one search per card.
void search(Link& link, const Channel& channel, u16 pid, u8 tableId, bool on);
// Reads captured packets, up to seven.
std::vector<Packet> searched(Link& link, const Channel& channel);

// Starts a routine of the slot's card in its own task. Returns the number for queries of its result.
u32 beginCall(Link& link, u16 slot, const std::string& routine, std::span<const u32> arguments);
struct CallState {
  bool finished = false;
  std::string printed;  // debug lines so far
};
CallState callState(Link& link, u16 slot, u32 number);

// A variable of a card, by its id. The card needs half a second for a rate.
VariableValue getVariable(Link& link, int slot, u32 id);
void setVariable(Link& link, int slot, u32 id, u32 value);

// Oldest first.
std::vector<Alarm> readAlarms(Link& link);
// The events from this number on that are still in the log.
std::vector<AlarmEvent> readAlarmEvents(Link& link, std::uint64_t from);
// The number of the next event.
std::uint64_t nextAlarmEvent(Link& link);

LcdImage readLcd(Link& link);
// The chassis stores up to 64 keys that its menu has not read yet.
void pressKey(Link& link, chassis::PanelKey key);

// The groups of the channel's tables from this number on that are still stored: the last 64 of each table.
GroupStarts readGroupStarts(Link& link, const Channel& channel, u64 from = 0);

// An input, or a channel: the slot's card decides. The first question starts the counters, which end ten
// seconds after the last one.
PidCounts readPidCounts(Link& link, const SourcePort& place);
void resetPidCounts(Link& link, const SourcePort& place);

// Adds a fault, as protocol::parseFault reads it, which ends by itself after a duration above 0.
void addFault(Link& link, const std::string& fault, std::chrono::milliseconds duration);
void clearFault(Link& link, const std::string& fault);  // an empty text: all
std::string listFaults(Link& link);                     // JSON, as `faults` of the report
std::string nameFaults(Link& link);                     // JSON: those that can be added

}  // namespace client
