#include "client/channel_variables.h"

#include <fmt/format.h>

#include <algorithm>

namespace client {
namespace {

const char* contentOf(u16 lock) {
  return lock == kPsiLock ? "tables" : "PID map";
}

}  // namespace

Bytes ChannelVariables::call(Operation operation, u16 variable, Bytes data, const std::string& what) {
  return ask(link_, makeRequest(operation, variable, channel_.slot, channel_.port, std::move(data)), what);
}

bool ChannelVariables::readLock(u16 variable) {
  const std::string what =
      fmt::format("read the lock of the {} of {}", contentOf(variable), channelName(channel_));
  const auto state = decodeNumber(call(Operation::kRead, variable, {}, what));
  if (!state) failOnReply(what);
  return *state != 0;
}

void ChannelVariables::writeLock(u16 variable, bool lock) {
  call(Operation::kWrite, variable, encodeNumber(lock ? 1 : 0),
       fmt::format("{} the {} of {}", lock ? "lock" : "unlock", contentOf(variable), channelName(channel_)));
}

// ---- Tables ----

void ChannelVariables::writeTable(const TablePackets& table, const std::function<void(std::size_t)>& sent) {
  const std::span<const Packet> packets = table.packets;
  for (std::size_t first = 0; first < packets.size(); first += kPacketsPerChunk) {
    const auto chunk =
        packets.subspan(first, std::min<std::size_t>(kPacketsPerChunk, packets.size() - first));
    call(Operation::kWrite, kPsiPackets, encodePackets(table.pid, tableId(table.type), chunk),
         fmt::format("write {} on PID {:#06x} of {}", tableName(table.type), table.pid,
                     channelName(channel_)));
    if (sent) sent(chunk.size());
  }
}

PacketsReply ChannelVariables::readPackets(u16 pid, u8 tableId, u8 startPosition) {
  const std::string what =
      fmt::format("read {} on PID {:#06x} of {}", nameOfTableId(tableId), pid, channelName(channel_));
  auto reply = decodePacketsReply(
      call(Operation::kRead, kPsiPackets, encodePacketsRequest(pid, tableId, startPosition), what));
  if (!reply || reply->pid != pid || reply->tableId != tableId || reply->startPosition != startPosition) {
    failOnReply(what);
  }
  return *std::move(reply);
}

void ChannelVariables::writeInterval(PsiType type, u32 ticks) {
  call(Operation::kWrite, kPsiInterval, encodeInterval(tableId(type), ticks),
       fmt::format("set the interval of {} of {}", tableName(type), channelName(channel_)));
}

IntervalReply ChannelVariables::readInterval(PsiType type) {
  const std::string what =
      fmt::format("read the interval of {} of {}", tableName(type), channelName(channel_));
  const auto interval =
      decodeIntervalReply(call(Operation::kRead, kPsiInterval, encodeIntervalRequest(tableId(type)), what));
  if (!interval || interval->tableId != tableId(type)) failOnReply(what);
  return *interval;
}

// ---- The PID map ----

void ChannelVariables::writeMap(std::span<const MapEntry> entries) {
  std::size_t sent = 0;
  do {
    const auto chunk =
        entries.subspan(sent, std::min<std::size_t>(kMapEntriesPerChunk, entries.size() - sent));
    call(Operation::kWrite, kPidMapChunk,
         encodeMapChunk(static_cast<u32>(entries.size()), static_cast<u32>(sent), chunk),
         fmt::format("write entries {} to {} of the PID map of {}", sent + 1, sent + chunk.size(),
                     channelName(channel_)));
    sent += chunk.size();
  } while (sent < entries.size());
}

std::optional<std::vector<MapEntry>> ChannelVariables::readMap() {
  std::vector<MapEntry> entries;
  std::size_t total = 0;
  do {
    const u32 position = static_cast<u32>(entries.size());
    const std::string what =
        fmt::format("read the PID map of {} from entry {}", channelName(channel_), position + 1);
    const auto chunk = decodeMapChunk(call(Operation::kRead, kPidMapChunk, encodeNumber(position), what));
    if (!chunk || chunk->startPosition != position || chunk->total > kPidMapSize) failOnReply(what);
    const bool changed = !entries.empty() && chunk->total != total;
    total = chunk->total;
    entries.insert(entries.end(), chunk->entries.begin(), chunk->entries.end());
    if (changed || entries.size() > total || (chunk->entries.empty() && entries.size() < total))
      return std::nullopt;
  } while (entries.size() < total);
  return entries;
}

}  // namespace client
