// A channel's PID map: as a CSV file, its checks, and the plans of its changes (see channel_change.h). A file
// is written by operators, printed by `qamctl pidmap show --csv`, or saved as a rescue file; slots and inputs
// count from 1 in it. A lock empties the card's record at once; the router keeps the old map until the
// unlock, which sends the whole record to it.
#pragma once

#include <array>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "client/channel_change.h"

namespace client {

// The columns of the file: name, lowest and highest value. This is what the card's record can hold, so that a
// rescue file can have any content of it.
struct MapColumn {
  const char* name;
  u32 lowest, highest;
};
inline constexpr std::array kMapColumns = {
    MapColumn{"src_slot", 1, MAX_BOARD_NUM},
    MapColumn{"src_port", 1, 0x100},
    MapColumn{"src_pid", 0, 0xFFFF},
    MapColumn{"src_programme", 0, 0xFFFF},
    MapColumn{"dst_pid", 0, 0xFFFF},
    MapColumn{"dst_programme", 0, 0xFFFF},
    MapColumn{"type", 0, 0xFF},
};
// A value for each column, within its range.
using MapValues = std::array<u32, kMapColumns.size()>;
MapEntry mapEntryOf(const MapValues& values);
MapValues valuesOf(const MapEntry& entry);

struct MapFile {
  std::vector<MapEntry> entries;
  std::vector<std::size_t> lines;  // of the entries, from 1
};

// Reads the header and lines of numbers, decimal or 0x. Blank lines and lines that begin with # are ignored;
// lines may end in CR LF. Only the ranges are checked; checkMap checks the rest. `name` precedes messages.
// Throws Error with the line's number.
MapFile parseMapFile(std::string_view text, const std::string& name);
// The same for a file; also throws Error if it cannot be read.
MapFile readMapFile(const std::filesystem::path& file);

std::string mapFileText(const std::vector<MapEntry>& entries);

// Refuses a map that the card would reject or the router misroute: more than kPidMapSize entries, numbers out
// of range, duplicate sources, two sources on one output PID, inputs that are not in `options.sources`. Notes
// output PIDs on which the card sends its own tables. Throws Error with the entries.
void checkMap(const std::vector<MapEntry>& entries, const ChangeOptions& options);

// Checks the entries and reads the map. Throws Error, also for a locked map.
ChannelChange planMap(Link& link, const Channel& channel, const std::vector<MapEntry>& entries,
                      const ChangeOptions& options = {});

// How to end a lock that another client has left.
enum class ReleaseBy {
  kMap,     // a given map: from a rescue file
  kRouter,  // the map that is on the air; its programme numbers and types are lost
  kRecord,  // the current content of the record, even if it is empty or half a map
};
// Sends a whole map under the lock of a locked channel, and unlocks. `entries` is for kMap; they are sent
// unchecked, because a card had them before. Throws Error, also if the map is not locked.
ChannelChange planRelease(Link& link, const Channel& channel, ReleaseBy by,
                          const std::vector<MapEntry>& entries, const ChangeOptions& options = {});

}  // namespace client
