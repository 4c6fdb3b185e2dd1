// Reads and writes the variables of one channel over a link: its tables and its PID map. Uploads and
// read-backs use it.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "client/link.h"
#include "protocol/records.h"

namespace client {

struct Chunk;

class ChannelVariables {
 public:
  ChannelVariables(Link& link, const Channel& channel) : link_(link), channel_(channel) {}

  const Channel& channel() const { return channel_; }

  // All throw Error, also if the reply does not match the request.
  bool tablesLocked() { return readLock(kPsiLock); }
  void lockTables(bool lock) { writeLock(kPsiLock, lock); }
  void writeChunk(const Chunk& chunk);
  PacketsReply readPackets(u16 pid, u8 tableId, u8 startPosition);
  void writeInterval(PsiType type, u32 ticks);
  IntervalReply readInterval(PsiType type);

  bool mapLocked() { return readLock(kPidMapLock); }
  void lockMap(bool lock) { writeLock(kPidMapLock, lock); }
  // Sends as many requests as needed; one for an empty map, which sets the count to 0.
  void writeMap(std::span<const MapEntry> entries);
  // Also throws Error if another client changes the map meanwhile.
  std::vector<MapEntry> readMap();

 private:
  bool readLock(u16 variable);
  void writeLock(u16 variable, bool lock);
  Bytes call(Operation operation, u16 variable, Bytes data, const std::string& what);

  Link& link_;
  Channel channel_;
};

struct PidMap {
  bool locked = false;            // a load is in progress or was aborted: there may be few or no entries
  std::vector<MapEntry> entries;  // as in the card's record, including blank ones
};
// Throws Error, also if another client changes the map meanwhile.
PidMap readMap(Link& link, const Channel& channel);

}  // namespace client
