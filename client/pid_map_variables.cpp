#include "client/pid_map_variables.h"

#include <fmt/format.h>

#include <algorithm>

#include "client/psi_records.h"

namespace client {
namespace {

// Two of the results mean something else here than they do for tables.
std::string mapResultText(u32 result) {
  constexpr u32 kTooMany = 1;
  constexpr u32 kNoSuchInput = 3;
  if (result == kTooMany) return "the card takes at most 256 entries";
  if (result == kNoSuchInput) return "an entry names an input that its source card has not, or no slot";
  if (result == kNoCard) return "no card in this slot, or in a source slot that an entry names";
  return resultText(result);
}

}  // namespace

Reply PidMapVariables::call(Operation operation, u16 variable, Bytes data, const std::string& what) {
  Reply reply = link_.call(makeRequest(operation, variable, channel_.slot, channel_.port, std::move(data)));
  if (reply.result != kDone) {
    throw PidMapError(
        fmt::format("{} of {} was refused: {}", what, channelName(channel_), mapResultText(reply.result)));
  }
  return reply;
}

void PidMapVariables::failOnReply(const std::string& what) const {
  throw PidMapError(fmt::format("{} of {}: the reply is not what was asked for; is this server a chassis?",
                                what, channelName(channel_)));
}

bool PidMapVariables::locked() {
  const std::string what = "reading the PID map's lock state";
  const auto state = decodeLock(call(Operation::kRead, kVarPidMapLock, {}, what).data);
  if (!state) failOnReply(what);
  return *state;
}

void PidMapVariables::setLock(bool locked) {
  call(Operation::kWrite, kVarPidMapLock, encodeLock(locked),
       locked ? "the lock of the PID map" : "the unlock of the PID map");
}

void PidMapVariables::write(std::span<const MapEntry> entries) {
  std::size_t sent = 0;
  do {
    const auto chunk = entries.subspan(sent, std::min(kMapChunkSize, entries.size() - sent));
    call(Operation::kWrite, kVarPidMapChunk,
         encodeMapChunk(static_cast<u32>(entries.size()), static_cast<u32>(sent), chunk),
         fmt::format("writing PID map entries {} to {}", sent + 1, sent + chunk.size()));
    sent += chunk.size();
  } while (sent < entries.size());
}

MapChunk PidMapVariables::readChunk(u32 startPosition) {
  const std::string what = fmt::format("reading the PID map from entry {}", startPosition + 1);
  const auto chunk = decodeMapChunk(
      call(Operation::kRead, kVarPidMapChunk, encodeMapChunkRequest(startPosition), what).data);
  if (!chunk || chunk->startPosition != startPosition || chunk->total > kMapSize) failOnReply(what);
  return *chunk;
}

std::vector<MapEntry> PidMapVariables::read() {
  std::vector<MapEntry> entries;
  std::size_t total = 0;
  do {
    const MapChunk chunk = readChunk(static_cast<u32>(entries.size()));
    const bool changed = !entries.empty() && chunk.total != total;
    total = chunk.total;
    entries.insert(entries.end(), chunk.entries.begin(), chunk.entries.end());
    if (changed || entries.size() > total || (chunk.entries.empty() && entries.size() < total)) {
      throw PidMapError(fmt::format(
          "the PID map of {} changed while it was read: another client is loading it; try again when it is "
          "done",
          channelName(channel_)));
    }
  } while (entries.size() < total);
  return entries;
}

}  // namespace client
