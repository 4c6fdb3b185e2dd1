#include "client/psi_records.h"

#include <algorithm>

#include "platform/wire.h"

namespace client {
namespace {

constexpr std::size_t kLockSize = 4;

constexpr std::size_t kChunkTableAt = 2;
constexpr std::size_t kChunkTotalAt = 4;
constexpr std::size_t kChunkStartAt = 8;
constexpr std::size_t kChunkCountAt = 12;
constexpr std::size_t kChunkHeaderSize = 16;

constexpr std::size_t kChunkRequestTableAt = 2;
constexpr std::size_t kChunkRequestStartAt = 4;
constexpr std::size_t kChunkRequestSize = 8;

constexpr std::size_t kIntervalTicksAt = 4;
constexpr std::size_t kIntervalPacketsAt = 8;
constexpr std::size_t kIntervalSize = 12;
constexpr std::size_t kIntervalRequestSize = 4;

}  // namespace

Bytes encodeLock(bool locked) {
  Bytes data(kLockSize);
  wire::put32(data.data(), locked ? 1 : 0);
  return data;
}

std::optional<bool> decodeLock(std::span<const u8> data) {
  if (data.size() != kLockSize) return std::nullopt;
  return wire::get32(data.data()) != 0;
}

Bytes encodeChunk(const Chunk& chunk) {
  Bytes data(kChunkHeaderSize);
  wire::put16(data.data(), chunk.pid);
  data[kChunkTableAt] = chunk.tableId;
  data[kChunkCountAt] = static_cast<u8>(chunk.packets.size());
  for (const Packet& packet : chunk.packets) data.insert(data.end(), packet.begin(), packet.end());
  return data;
}

Bytes encodeChunkRequest(u16 pid, u8 tableId, u8 startPosition) {
  Bytes data(kChunkRequestSize);
  wire::put16(data.data(), pid);
  data[kChunkRequestTableAt] = tableId;
  wire::put32(&data[kChunkRequestStartAt], startPosition);
  return data;
}

std::optional<ChunkReply> decodeChunkReply(std::span<const u8> data) {
  if (data.size() < kChunkHeaderSize) return std::nullopt;
  const std::size_t count = data[kChunkCountAt];
  if (data.size() != kChunkHeaderSize + count * kPacketSize) return std::nullopt;
  ChunkReply reply{.pid = wire::get16(data.data()),
                   .tableId = data[kChunkTableAt],
                   .total = wire::get32(&data[kChunkTotalAt]),
                   .startPosition = wire::get32(&data[kChunkStartAt]),
                   .packets = std::vector<Packet>(count)};
  for (std::size_t i = 0; i < count; ++i) {
    std::ranges::copy(data.subspan(kChunkHeaderSize + i * kPacketSize, kPacketSize),
                      reply.packets[i].begin());
  }
  return reply;
}

Bytes encodeInterval(u8 tableId, u32 ticks) {
  Bytes data(kIntervalSize);
  data[0] = tableId;
  wire::put32(&data[kIntervalTicksAt], ticks);
  return data;
}

Bytes encodeIntervalRequest(u8 tableId) {
  Bytes data(kIntervalRequestSize);
  data[0] = tableId;
  return data;
}

std::optional<IntervalReply> decodeIntervalReply(std::span<const u8> data) {
  if (data.size() != kIntervalSize) return std::nullopt;
  return IntervalReply{.tableId = data[0],
                       .ticks = wire::get32(&data[kIntervalTicksAt]),
                       .packets = wire::get32(&data[kIntervalPacketsAt])};
}

}  // namespace client
