// What a chassis measures of its streams, as records of the management datagram: the groups of PSI that a
// channel has begun, and the packets of an input or output by PID.
#pragma once

#include <array>
#include <optional>
#include <span>
#include <vector>

#include "base/bytes.h"
#include "mpeg/tables.h"

namespace protocol {

using base::Bytes;

// A record is added to a reply while it fits into this.
inline constexpr std::size_t kMostStreamData = 8192;

// ---- PSI groups of a channel (kGroupStarts)

// A group that the card has begun to send. Times are in ticks of the auxiliary clock.
struct GroupStart {
  u64 number = 0;  // of the channel's groups, from 1
  u64 tick = 0;
  PsiType table{};
  u32 interval = 0;  // since the previous group's start; 0: unknown
  u32 due = 0;   // the interval at which it was due: the table's own, or the packets of the previous group
  u32 held = 0;  // for so long then a section of another table had the PID

  // 0 for a group in time; a card may be a tick late by the order in which it sends its tables.
  u32 late() const { return interval > due + held + 1 ? interval - due - held : 0; }
};

struct GroupStarts {
  struct Table {
    u32 interval = 0;  // as set
    u32 overdue = 0;   // ticks by which the next group is late by now
  };
  u64 now = 0;                         // tick
  u64 next = 1;                        // number of the next group
  std::array<Table, PSINUM> tables{};  // by PsiType
  std::vector<GroupStart> groups{};    // ascending by number
};

// As many groups as fit.
Bytes encode(const GroupStarts& starts);
// Nullopt also for a table_id that is none of the eight.
std::optional<GroupStarts> decodeGroupStarts(std::span<const u8> data);

// ---- Packets by PID (kPids)

enum PidRequest : u16 { kReadPids = 1, kResetPids = 2 };  // variables of kPids

struct PidCount {
  struct Rates {  // bit/s, over seconds
    u32 now = 0, lowest = 0, highest = 0;
  };
  u16 pid = 0;
  bool hasPcr = false;
  bool isScrambled = false;      // some packets of it
  std::optional<Rates> rates{};  // nullopt before the first whole second
  u64 packets = 0;
  u32 continuityErrors = 0;
};

struct PidCounts {
  u64 counted_ms = 0;              // since the start or reset of the counters
  u32 pids = 0;                    // of all, also those that are not below
  std::vector<PidCount> counts{};  // ascending by PID
};

Bytes encode(const PidCounts& counts);  // as many as fit
std::optional<PidCounts> decodePidCounts(std::span<const u8> data);

}  // namespace protocol
