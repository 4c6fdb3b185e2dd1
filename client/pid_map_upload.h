// The loading of a channel's PID map, so that none is ever lost: a lock empties the card's record at once,
// and an unlock sends all of it to the router. Used by qamctl over UDP and by the headend's own operator in
// virtual time, so nothing here knows a socket or a clock.
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

// How many inputs the card in a slot (from 0) has.
using InputCounts = std::map<u16, u32>;

struct MapOptions {
  // Holds the map that was there, from before the lock until the new one is on the air; kept where the way
  // back failed. Empty: no file. A file that stands there already is another failure's: the load is refused.
  std::filesystem::path rescueFile{};
  std::optional<InputCounts> sources{};               // nothing: not known, the card will tell
  std::function<std::string(std::size_t)> nameOf{};   // of an entry, for messages; empty: "entry 1" and so on
  std::function<void(const std::string& text)> note;  // what an operator should know; may be empty
};

// Refuses a map that the card would not take or the router not carry as meant: more than kPidMapSize entries,
// numbers out of range, a source twice, two sources on one output PID, inputs that `options.sources` has not.
// Notes output PIDs on which the card sends tables of its own. Throws Error, which names the entries.
void checkMap(const std::vector<MapEntry>& entries, const MapOptions& options);

// Replaces the channel's map: checks it, refuses a locked channel, keeps the map that is there, locks, sends,
// compares, unlocks, and looks whether record and router hold it. An error after the lock sends back the map
// that was there and unlocks; where that fails too, what() says what stands where and which command comes
// next. Throws Error (kUnseen once the new map may be on the air, kNoReply only where nothing
// was changed yet).
void replaceMap(Link& link, const Channel& channel, const std::vector<MapEntry>& entries,
                const MapOptions& options);

// What ends a lock that somebody left behind.
enum class ReleaseBy {
  kMap,     // a map given: that of a rescue file
  kRouter,  // the map that is on the air; its programme numbers and types are lost
  kRecord,  // what the record holds now, though it be empty or half a map
};
// Ends the lock of a locked channel by sending a whole map under it (not so for kRecord) and unlocking.
// `entries` is for kMap; they are sent as they are, unchecked, for they stood in a card before. Returns what
// the channel carries then. Throws Error, also when the channel is not locked; kNoReply only
// where nothing was changed yet.
std::vector<MapEntry> releaseMap(Link& link, const Channel& channel, ReleaseBy by,
                                 const std::vector<MapEntry>& entries, const MapOptions& options);

}  // namespace client
