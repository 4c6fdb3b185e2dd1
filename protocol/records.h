// The records of a channel's variables (ts/qamRecords.h) as values, and their bytes. A decoder gives nullopt
// if the data has not the length of the record.
#pragma once

#include <optional>
#include <span>
#include <vector>

#include "mpeg/packet.h"
#include "platform/router_word.h"
#include "protocol/channel.h"
#include "protocol/datagram.h"

namespace protocol {

// A lock state (not 0 during an upload), a position, a number of a card's variable.
Bytes encodeNumber(u32 value);
std::optional<u32> decodeNumber(std::span<const u8> data);

// ---- PSI ----

// Up to kPacketsPerChunk packets; total and start position are for replies and stay 0.
Bytes encodePackets(u16 pid, u8 tableId, std::span<const mpeg::Packet> packets);
Bytes encodePacketsRequest(u16 pid, u8 tableId, u8 startPosition);
struct PacketsReply {
  u16 pid = 0;
  u8 tableId = 0;
  u32 total = 0;          // packets stored for this PID and table
  u32 startPosition = 0;  // of the first packet below
  std::vector<mpeg::Packet> packets;
};
std::optional<PacketsReply> decodePacketsReply(std::span<const u8> data);

Bytes encodeInterval(u8 tableId, u32 ticks);
Bytes encodeIntervalRequest(u8 tableId);
struct IntervalReply {
  u8 tableId = 0;
  u32 ticks = 0;
  u32 packets = 0;  // packets stored for this table
};
std::optional<IntervalReply> decodeIntervalReply(std::span<const u8> data);

// ---- The PID map ----

struct MapEntry {
  u16 sourceSlot = 0;
  u32 sourcePort = 0;
  u16 sourcePid = 0;
  u16 sourceProgramme = 0;  // the card stores programme numbers and type; the router does not use them
  u16 pid = 0;              // in the output
  u16 programme = 0;
  u16 type = 0;  // the card stores eight bits

  auto operator<=>(const MapEntry&) const = default;
};

// The card sorts a map by it.
constexpr u32 sourceKey(const MapEntry& entry) {
  return chassis::sourceKey(entry.sourceSlot, entry.sourcePort, entry.sourcePid);
}

// An entry that was announced but never received: it has no valid slot, and the card would reject it.
constexpr bool isBlank(const MapEntry& entry) {
  return entry.sourceSlot >= MAX_BOARD_NUM;
}

struct MapChunk {
  u32 total = 0;          // of the whole map
  u32 startPosition = 0;  // of the first entry below
  std::vector<MapEntry> entries;
};
// Up to kMapEntriesPerChunk entries.
Bytes encodeMapChunk(u32 total, u32 startPosition, std::span<const MapEntry> entries);
std::optional<MapChunk> decodeMapChunk(std::span<const u8> data);

// The entries at the used positions. Programme numbers and type, which a router does not have, are 0.
std::vector<MapEntry> entriesOf(std::span<const chassis::RouterWords> router);
// True if the router has exactly these entries, at the first positions and in this order. Slot, port and PIDs
// of an entry are cut to the bits that the words have.
bool holds(std::span<const chassis::RouterWords> router, std::span<const MapEntry> entries);

}  // namespace protocol
