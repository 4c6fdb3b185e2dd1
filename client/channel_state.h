// What a channel stores: its tables with their intervals, its PID map, and the locks of both. Read for
// reports, and by the plans of a change.
#pragma once

#include <array>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "client/link.h"
#include "client/table_packets.h"
#include "protocol/records.h"

namespace client {

// A read starts at a position of 8 bits and returns at most kPacketsPerChunk: packets from this position of a
// table (of a PID, for the PMT) on cannot be read.
inline constexpr std::size_t kReachablePackets = 255 + kPacketsPerChunk;

struct StoredTable {
  u32 interval_ticks = 0;
  std::size_t stored = 0;          // packet count of the card, on all PIDs
  std::vector<TablePackets> pids;  // the readable packets, without PIDs that have none

  std::size_t outOfReach() const;
  bool operator==(const StoredTable&) const = default;
};

struct PsiStore {
  bool locked = false;                     // an upload is in progress: the tables may be incomplete
  std::array<StoredTable, PSINUM> tables;  // by PsiType

  Tables readable() const;
  std::size_t outOfReach() const;
  bool operator==(const PsiStore&) const = default;
};

struct PidMap {
  bool locked = false;            // a load is in progress or was aborted: there may be few or no entries
  std::vector<MapEntry> entries;  // as in the card's record, including blank ones

  bool operator==(const PidMap&) const = default;
};

// The parts that were read; a plan that needs only one part reads only that.
struct ChannelState {
  Channel channel;
  PsiStore psi{};
  PidMap map{};
};

// After each reply, with the packets read so far.
using ReadProgress = std::function<void(std::size_t packets)>;

// PMT packets are read on the PIDs that the stored PAT names. All throw Error, the first two also if another
// client changes the part meanwhile.
PsiStore readPsi(Link& link, const Channel& channel, const ReadProgress& progress = {});
PidMap readMap(Link& link, const Channel& channel);

// The same without the check at the end, for a change, which checks before its lock.
PsiStore readPsiOnce(Link& link, const Channel& channel, const ReadProgress& progress = {});
PidMap readMapOnce(Link& link, const Channel& channel);
// Throws Error if the lock, or the packet count of one of these tables, is not the one in `psi`.
void checkUnchanged(Link& link, const Channel& channel, const PsiStore& psi, const std::set<PsiType>& types);

std::string ownerName(const Channel& channel);  // "channel 1.2", for messages

// In the order in which a card stores a map, without blank entries.
std::vector<MapEntry> asKept(std::vector<MapEntry> map);

}  // namespace client
