// The records of the PSI variables as they travel in a request or a reply, big-endian. Used by the procedures
// of psi_upload and psi_read_back.
#pragma once

#include <optional>
#include <span>

#include "client/datagram.h"
#include "client/upload_plan.h"

namespace client {

// The lock state, 4 bytes: 1 while an upload is under way.
Bytes encodeLock(bool locked);
std::optional<bool> decodeLock(std::span<const u8> data);

// A chunk as it is written: total and start position belong to replies and stay 0.
Bytes encodeChunk(const Chunk& chunk);

Bytes encodeChunkRequest(u16 pid, u8 tableId, u8 startPosition);

struct ChunkReply {
  u16 pid = 0;
  u8 tableId = 0;
  u32 total = 0;          // packets stored of this PID and table
  u32 startPosition = 0;  // of the first packet below
  std::vector<Packet> packets;
};
// Nothing when the data has not the length that its packet count asks for.
std::optional<ChunkReply> decodeChunkReply(std::span<const u8> data);

Bytes encodeInterval(u8 tableId, u32 ticks);
Bytes encodeIntervalRequest(u8 tableId);

struct IntervalReply {
  u8 tableId = 0;
  u32 ticks = 0;
  u32 packets = 0;  // stored of this table
};
std::optional<IntervalReply> decodeIntervalReply(std::span<const u8> data);

}  // namespace client
