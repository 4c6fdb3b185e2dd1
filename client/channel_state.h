// What a channel stores: its tables with their intervals, its PID map, and the locks of both. Read for
// reports and by the plans of a change; written variable by variable.
#pragma once

#include <algorithm>
#include <array>
#include <functional>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "client/link.h"
#include "client/table_packets.h"
#include "protocol/records.h"

namespace client {

// ---- The variables of a channel

// Reads and writes them over a link. All throw Error, also if the reply does not match the request.
class ChannelVariables {
 public:
  ChannelVariables(Link& link, const Channel& channel) : link_(link), channel_(channel) {}

  const Channel& channel() const { return channel_; }

  bool tablesLocked() const { return readLock(kPsiLock); }
  void lockTables(bool lock) const { writeLock(kPsiLock, lock); }
  // Sends chunks of up to kPacketsPerChunk; `sent` receives the packets of each.
  void writeTable(
      const TablePackets& table, const std::function<void(std::size_t)>& sent = [](std::size_t) {}) const;
  PacketsReply readPackets(u16 pid, u8 tableId, u8 startPosition) const;
  void writeInterval(PsiType type, u32 ticks) const;
  IntervalReply readInterval(PsiType type) const;

  bool mapLocked() const { return readLock(kPidMapLock); }
  void lockMap(bool lock) const { writeLock(kPidMapLock, lock); }
  // Sends as many requests as needed; one for an empty map, which sets the count to 0.
  void writeMap(std::span<const MapEntry> entries) const;
  // nullopt if another client changes the map meanwhile.
  std::optional<std::vector<MapEntry>> readMap() const;

  // kPsiLock or kPidMapLock.
  bool readLock(u16 variable) const;
  void writeLock(u16 variable, bool lock) const;

 private:
  Request request(Operation operation, u16 variable, Bytes data) const {
    return makeRequest(operation, variable, channel_.slot, channel_.port, std::move(data));
  }
  // Of a request, for error messages: "lock the tables of 1.2".
  template <typename... Args>
  std::string name(fmt::format_string<Args...> action, Args&&... args) const {
    return fmt::format("{} of {}", fmt::format(action, std::forward<Args>(args)...), channelName(channel_));
  }

  Link& link_;
  Channel channel_;
};

// ---- All of a part

// A read starts at a position of 8 bits and returns at most kPacketsPerChunk: packets from this position of a
// table (of a PID, for the PMT) on cannot be read.
inline constexpr std::size_t kReachablePackets = 255 + kPacketsPerChunk;

struct StoredTable {
  u32 interval_ticks = 0;
  std::size_t stored = 0;  // packet count of the card, on all PIDs
  Tables pids{};           // the readable packets, without PIDs that have none

  std::size_t outOfReach() const { return stored - std::min(stored, packetsIn(pids)); }
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
PsiStore readPsi(
    Link& link, const Channel& channel, const ReadProgress& progress = [](std::size_t) {});
PidMap readMap(Link& link, const Channel& channel);

// The same without the check at the end, for a change, which checks before its lock.
PsiStore readPsiOnce(
    Link& link, const Channel& channel, const ReadProgress& progress = [](std::size_t) {});
PidMap readMapOnce(Link& link, const Channel& channel);
// Throws Error if the lock, or the packet count of one of these tables, is not the one in `psi`.
void checkUnchanged(Link& link, const Channel& channel, const PsiStore& psi, const std::set<PsiType>& types);

// "channel 1.2", for messages.
inline std::string ownerName(const Channel& channel) {
  return "channel " + channelName(channel);
}

// In the order in which a card stores a map, without blank entries.
std::vector<MapEntry> asKept(std::vector<MapEntry> map);

}  // namespace client
