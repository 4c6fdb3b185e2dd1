#include "client/pid_map.h"

#include <fmt/format.h>

#include <algorithm>

#include "client/pid_map_variables.h"
#include "platform/wire.h"

namespace client {
namespace {

constexpr std::size_t kEntryTypeAt = 2;
constexpr std::size_t kEntryPortAt = 4;
constexpr std::size_t kEntrySourceProgrammeAt = 8;
constexpr std::size_t kEntryProgrammeAt = 10;
constexpr std::size_t kEntrySourcePidAt = 12;
constexpr std::size_t kEntryPidAt = 14;
constexpr std::size_t kEntrySize = 16;

constexpr std::size_t kChunkStartAt = 4;
constexpr std::size_t kChunkCountAt = 8;
constexpr std::size_t kChunkHeaderSize = 12;

constexpr u16 kInUse = 0x20;  // of word 1

MapEntry entryAt(const u8* p) {
  return {.sourceSlot = wire::get16(p),
          .sourcePort = wire::get32(p + kEntryPortAt),
          .sourcePid = wire::get16(p + kEntrySourcePidAt),
          .sourceProgramme = wire::get16(p + kEntrySourceProgrammeAt),
          .pid = wire::get16(p + kEntryPidAt),
          .programme = wire::get16(p + kEntryProgrammeAt),
          .type = wire::get16(p + kEntryTypeAt)};
}

void putEntry(u8* p, const MapEntry& entry) {
  wire::put16(p, entry.sourceSlot);
  wire::put16(p + kEntryTypeAt, entry.type);
  wire::put32(p + kEntryPortAt, entry.sourcePort);
  wire::put16(p + kEntrySourceProgrammeAt, entry.sourceProgramme);
  wire::put16(p + kEntryProgrammeAt, entry.programme);
  wire::put16(p + kEntrySourcePidAt, entry.sourcePid);
  wire::put16(p + kEntryPidAt, entry.pid);
}

}  // namespace

PidMap readMap(Link& link, const Channel& channel) {
  PidMapVariables card(link, channel);
  PidMap map{.locked = card.locked(), .entries = card.read()};
  // A lock in between empties the map.
  if (card.locked() != map.locked) {
    throw PidMapError(
        fmt::format("the PID map of {} changed while it was read: another client is loading it; try again "
                    "when it is done",
                    channelName(channel)));
  }
  return map;
}

RouterWords routerWords(const MapEntry& entry) {
  const u32 pid = entry.pid & u32{kHighestPid};
  const u32 port = entry.sourcePort & 0x0F;
  const u32 slot = entry.sourceSlot & 0x0Fu;
  return {static_cast<u16>((entry.sourcePid & kHighestPid) | port << 13),
          static_cast<u16>(kInUse | (pid & 0x3FF) << 6 | slot << 1 | port >> 3), static_cast<u16>(pid >> 10)};
}

std::vector<MapEntry> entriesOf(std::span<const RouterWords> router) {
  std::vector<MapEntry> entries;
  for (const RouterWords& words : router) {
    if ((words[1] & kInUse) == 0) continue;
    entries.push_back({.sourceSlot = static_cast<u16>(words[1] >> 1 & 0x0F),
                       .sourcePort = static_cast<u32>(words[0] >> 13 | (words[1] & 1) << 3),
                       .sourcePid = static_cast<u16>(words[0] & kHighestPid),
                       .pid = static_cast<u16>(words[1] >> 6 | (words[2] & 7) << 10)});
  }
  return entries;
}

bool holds(std::span<const RouterWords> router, std::span<const MapEntry> entries) {
  if (entries.size() > router.size()) return false;
  const auto rest = router.subspan(entries.size());
  return std::ranges::equal(router.first(entries.size()), entries, {}, {}, routerWords) &&
         std::ranges::all_of(rest, [](const RouterWords& words) { return words == kUnusedPosition; });
}

Bytes encodeMapChunk(u32 total, u32 startPosition, std::span<const MapEntry> entries) {
  Bytes data(kChunkHeaderSize + entries.size() * kEntrySize);
  wire::put32(data.data(), total);
  wire::put32(&data[kChunkStartAt], startPosition);
  wire::put32(&data[kChunkCountAt], static_cast<u32>(entries.size()));
  for (std::size_t i = 0; i < entries.size(); ++i) {
    putEntry(&data[kChunkHeaderSize + i * kEntrySize], entries[i]);
  }
  return data;
}

Bytes encodeMapChunkRequest(u32 startPosition) {
  Bytes data(sizeof startPosition);
  wire::put32(data.data(), startPosition);
  return data;
}

std::optional<MapChunk> decodeMapChunk(std::span<const u8> data) {
  if (data.size() < kChunkHeaderSize) return std::nullopt;
  const u32 count = wire::get32(&data[kChunkCountAt]);
  if (count > kMapChunkSize || data.size() != kChunkHeaderSize + count * kEntrySize) return std::nullopt;
  MapChunk chunk{
      .total = wire::get32(data.data()), .startPosition = wire::get32(&data[kChunkStartAt]), .entries = {}};
  for (u32 i = 0; i < count; ++i) chunk.entries.push_back(entryAt(&data[kChunkHeaderSize + i * kEntrySize]));
  return chunk;
}

}  // namespace client
