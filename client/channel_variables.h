// Reads and writes the variables of one channel over a link: its tables and its PID map.
#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "client/link.h"
#include "client/table_packets.h"
#include "protocol/records.h"

namespace client {

class ChannelVariables {
 public:
  ChannelVariables(Link& link, const Channel& channel) : link_(link), channel_(channel) {}

  const Channel& channel() const { return channel_; }

  // All throw Error, also if the reply does not match the request.
  bool tablesLocked() { return readLock(kPsiLock); }
  void lockTables(bool lock) { writeLock(kPsiLock, lock); }
  // Sends chunks of up to kPacketsPerChunk; `sent` receives the packets of each.
  void writeTable(const TablePackets& table, const std::function<void(std::size_t)>& sent = {});
  PacketsReply readPackets(u16 pid, u8 tableId, u8 startPosition);
  void writeInterval(PsiType type, u32 ticks);
  IntervalReply readInterval(PsiType type);

  bool mapLocked() { return readLock(kPidMapLock); }
  void lockMap(bool lock) { writeLock(kPidMapLock, lock); }
  // Sends as many requests as needed; one for an empty map, which sets the count to 0.
  void writeMap(std::span<const MapEntry> entries);
  // nullopt if another client changes the map meanwhile.
  std::optional<std::vector<MapEntry>> readMap();

  // kPsiLock or kPidMapLock.
  bool readLock(u16 variable);
  void writeLock(u16 variable, bool lock);

 private:
  Bytes call(Operation operation, u16 variable, Bytes data, const std::string& what);

  Link& link_;
  Channel channel_;
};

}  // namespace client
