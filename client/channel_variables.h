// Reads and writes the PSI variables of one channel over a link, with refusals as exceptions. What psi_upload
// and psi_read_back are written on.
#pragma once

#include <string>

#include "client/channel.h"
#include "client/link.h"
#include "client/psi_records.h"

namespace client {

class ChannelVariables {
 public:
  ChannelVariables(Link& link, const Channel& channel) : link_(link), channel_(channel) {}

  const Channel& channel() const { return channel_; }

  // All throw LinkError, and PsiError when the card or the chassis refuses or answers something else.
  bool locked();
  void setLock(bool locked);
  void writeChunk(const Chunk& chunk);
  ChunkReply readChunk(u16 pid, u8 tableId, u8 startPosition);
  void writeInterval(TableType type, u32 ticks);
  IntervalReply readInterval(TableType type);

 private:
  Reply call(Operation operation, u16 variable, Bytes data, const std::string& what);
  [[noreturn]] void failOnReply(const std::string& what) const;

  Link& link_;
  Channel channel_;
};

}  // namespace client
