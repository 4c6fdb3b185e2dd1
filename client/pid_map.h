// A channel's PID map: which packets of which input come into its output, and under which PID. Its entries as
// they travel in the variables and as the chassis's router holds them, and the reading of a map. Used by
// pid_map_upload, qamctl and the headend's own operator.
#pragma once

#include <optional>
#include <span>
#include <stdexcept>
#include <vector>

#include "client/channel.h"
#include "client/chassis_services.h"
#include "client/link.h"

namespace client {

// A map was refused, or a procedure broke off. what() says how to go on.
class PidMapError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

inline constexpr std::size_t kMapSize = 256;      // entries of a map, and positions of the router
inline constexpr std::size_t kMapChunkSize = 89;  // entries of a request or a reply
inline constexpr u16 kHighestPid = 0x1FFF;        // also that of null packets

struct MapEntry {
  u16 sourceSlot = 0;  // slots and inputs from 0, as on the wire
  u32 sourcePort = 0;
  u16 sourcePid = 0;
  u16 sourceProgramme = 0;  // programme numbers and type are stored by the card and routed by nobody
  u16 pid = 0;              // in the output
  u16 programme = 0;
  u16 type = 0;  // the card keeps eight bits

  auto operator<=>(const MapEntry&) const = default;
};

// What the router looks for: slot, input and PID. The card sorts a map by it.
constexpr u32 sourceKey(const MapEntry& entry) {
  return (entry.sourcePid & u32{kHighestPid}) | entry.sourcePort << 13 | u32{entry.sourceSlot} << 17;
}

// An entry that was announced and never came: its slot is none, and the card would not take it again.
constexpr bool isBlank(const MapEntry& entry) {
  return entry.sourceSlot >= kSlots;
}

struct PidMap {
  bool locked = false;            // a load is under way or broke off: the entries may be few or none
  std::vector<MapEntry> entries;  // as the card's record holds them, blank ones included
};
// Throws PidMapError (also when another client changes the map meanwhile) or LinkError.
PidMap readMap(Link& link, const Channel& channel);

// The word of a position that holds an entry, and that of one that holds none.
RouterWords routerWords(const MapEntry& entry);
inline constexpr RouterWords kUnusedPosition = {0xFFFF, 0x001F, 0x0000};
// The entries at the positions in use. Programme numbers and type, which a router does not know, are 0.
std::vector<MapEntry> entriesOf(std::span<const RouterWords> router);
// True when the router holds exactly these entries, at the first positions and in this order.
bool holds(std::span<const RouterWords> router, std::span<const MapEntry> entries);

// The lock state, and records of the chunk variable, big-endian. A written chunk holds up to kMapChunkSize
// entries.
struct MapChunk {
  u32 total = 0;          // of the whole map
  u32 startPosition = 0;  // of the first entry below
  std::vector<MapEntry> entries;
};
Bytes encodeMapChunk(u32 total, u32 startPosition, std::span<const MapEntry> entries);
Bytes encodeMapChunkRequest(u32 startPosition);
// Nothing when the data has not the length that its count asks for.
std::optional<MapChunk> decodeMapChunk(std::span<const u8> data);

}  // namespace client
