// Loads a channel's PID map without losing a map: a lock empties the card's record at once, and an unlock
// sends the whole record to the router. Used by qamctl over UDP and by the headend's own operator in virtual
// time, so it does not depend on a socket or a clock.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client/link.h"
#include "protocol/records.h"

namespace client {

// Number of inputs of the card in a slot (from 0).
using InputCounts = std::map<u16, u32>;

struct MapOptions {
  // File for the old map, from before the lock until the new map is on the air; kept if the restore failed.
  // Empty: no file. An existing file belongs to an earlier failure: the load is refused.
  std::filesystem::path rescueFile{};
  std::optional<InputCounts> sources{};               // nullopt: unknown, the card checks it
  std::function<std::string(std::size_t)> nameOf{};   // of an entry, for messages; empty: "entry 1" and so on
  std::function<void(const std::string& text)> note;  // receives notes for the operator; may be empty
};

// Refuses a map that the card would reject or the router misroute: more than kPidMapSize entries, numbers out
// of range, duplicate sources, two sources on one output PID, inputs that are not in `options.sources`. Notes
// output PIDs on which the card sends its own tables. Throws Error with the entries.
void checkMap(const std::vector<MapEntry>& entries, const MapOptions& options);

// Replaces the channel's map: checks it, refuses a locked channel, saves the old map, locks, sends, compares,
// unlocks, and checks that record and router have the new map. After an error under the lock it sends the old
// map again and unlocks; if that fails too, what() gives the state of record and router and the next command.
// Throws Error (kUnseen if the new map may be on the air, kNoReply only if nothing was changed yet).
void replaceMap(Link& link, const Channel& channel, const std::vector<MapEntry>& entries,
                const MapOptions& options);

// How to end a lock that another client has left.
enum class ReleaseBy {
  kMap,     // a given map: from a rescue file
  kRouter,  // the map that is on the air; its programme numbers and types are lost
  kRecord,  // the current content of the record, even if it is empty or half a map
};
// Ends the lock of a locked channel: sends a whole map under it (not for kRecord) and unlocks. `entries` is
// for kMap; they are sent unchecked, because a card had them before. Returns the map of the channel after
// that. Throws Error, also if the channel is not locked; kNoReply only if nothing was changed yet.
std::vector<MapEntry> releaseMap(Link& link, const Channel& channel, ReleaseBy by,
                                 const std::vector<MapEntry>& entries, const MapOptions& options);

}  // namespace client
