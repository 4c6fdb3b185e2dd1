#include "protocol/records.h"

#include <algorithm>

namespace protocol {
namespace {

using base::bytesOf;
using base::recordOf;

pid_map_t recordOf(const MapEntry& entry) {
  pid_map_t record{};
  record.src_slot = entry.sourceSlot;
  record.type = entry.type;
  record.src_port = entry.sourcePort;
  record.src_prog_no = entry.sourceProgramme;
  record.dst_prog_no = entry.programme;
  record.src_pid = entry.sourcePid;
  record.dst_pid = entry.pid;
  return record;
}

MapEntry entryOf(const pid_map_t& record) {
  return {.sourceSlot = record.src_slot,
          .sourcePort = record.src_port,
          .sourcePid = record.src_pid,
          .sourceProgramme = record.src_prog_no,
          .pid = record.dst_pid,
          .programme = record.dst_prog_no,
          .type = record.type};
}

// With what a router has.
MapEntry entryOf(const chassis::RouterWords& words) {
  return {.sourceSlot = chassis::sourceSlot(words),
          .sourcePort = chassis::sourcePort(words),
          .sourcePid = chassis::sourcePid(words),
          .pid = chassis::outputPid(words)};
}

bool isRouted(const chassis::RouterWords& words, const MapEntry& entry) {
  return words == chassis::routerWords(entry.sourceSlot, entry.sourcePort, entry.sourcePid, entry.pid);
}

}  // namespace

Bytes encodeNumber(u32 value) {
  wire::U32 record;
  record = value;
  return bytesOf(record);
}

std::optional<u32> decodeNumber(std::span<const u8> data) {
  return data.size() == sizeof(u32) ? std::optional(wire::get32(data.data())) : std::nullopt;
}

Bytes encodePackets(u16 pid, u8 tableId, std::span<const mpeg::Packet> packets) {
  set_psi_pkt record{};
  record.pid = pid;
  record.tableid = tableId;
  record.this_num = static_cast<u8>(packets.size());
  Bytes data = bytesOf(record, offsetof(set_psi_pkt, psi_pkt));
  for (const mpeg::Packet& packet : packets) base::append(data, packet);
  return data;
}

Bytes encodePacketsRequest(u16 pid, u8 tableId, u8 startPosition) {
  get_psi_pkt record{};
  record.pid = pid;
  record.tableid = tableId;
  record.start_pos = startPosition;
  return bytesOf(record);
}

std::optional<PacketsReply> decodePacketsReply(std::span<const u8> data) {
  constexpr std::size_t kHead = offsetof(set_psi_pkt, psi_pkt);
  const auto record = recordOf<set_psi_pkt>(data);
  if (data.size() != kHead + record.this_num * kTsPacketSize) return std::nullopt;
  PacketsReply reply{.pid = record.pid,
                     .tableId = record.tableid,
                     .total = record.total_num,
                     .startPosition = record.start_pos,
                     .packets = std::vector<mpeg::Packet>(record.this_num)};
  for (data = data.subspan(kHead); mpeg::Packet & packet : reply.packets) {
    std::copy_n(data.begin(), kTsPacketSize, packet.begin());
    data = data.subspan(kTsPacketSize);
  }
  return reply;
}

Bytes encodeInterval(u8 tableId, u32 ticks) {
  set_psi_interval record{};
  record.tableid = tableId;
  record.time = ticks;
  return bytesOf(record);
}

Bytes encodeIntervalRequest(u8 tableId) {
  return bytesOf(get_psi_interval{.tableid = tableId, .reserved = {}});
}

std::optional<IntervalReply> decodeIntervalReply(std::span<const u8> data) {
  if (data.size() != sizeof(set_psi_interval)) return std::nullopt;
  const auto record = recordOf<set_psi_interval>(data);
  return IntervalReply{.tableId = record.tableid, .ticks = record.time, .packets = record.pkt_num};
}

Bytes encodeMapChunk(u32 total, u32 startPosition, std::span<const MapEntry> entries) {
  set_pid_map_t record{};
  record.total_num = total;
  record.start_pos = startPosition;
  record.this_num = static_cast<u32>(entries.size());
  std::ranges::transform(entries, record.pidmap, [](const MapEntry& entry) { return recordOf(entry); });
  return bytesOf(record, offsetof(set_pid_map_t, pidmap) + entries.size() * sizeof(pid_map_t));
}

std::optional<MapChunk> decodeMapChunk(std::span<const u8> data) {
  const auto record = recordOf<set_pid_map_t>(data);
  const u32 count = record.this_num;
  if (count > kMapEntriesPerChunk ||
      data.size() != offsetof(set_pid_map_t, pidmap) + count * sizeof(pid_map_t)) {
    return std::nullopt;
  }
  MapChunk chunk{.total = record.total_num, .startPosition = record.start_pos, .entries = {}};
  for (u32 i = 0; i < count; ++i) chunk.entries.push_back(entryOf(record.pidmap[i]));
  return chunk;
}

std::vector<MapEntry> entriesOf(std::span<const chassis::RouterWords> router) {
  std::vector<MapEntry> entries;
  for (const chassis::RouterWords& words : router) {
    if (chassis::isUsed(words)) entries.push_back(entryOf(words));
  }
  return entries;
}

bool holds(std::span<const chassis::RouterWords> router, std::span<const MapEntry> entries) {
  if (entries.size() > router.size()) return false;
  const auto rest = router.subspan(entries.size());
  return std::ranges::equal(router.first(entries.size()), entries, isRouted) &&
         std::ranges::count(rest, chassis::kUnusedPosition) == static_cast<std::ptrdiff_t>(rest.size());
}

}  // namespace protocol
