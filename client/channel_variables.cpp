#include "client/channel_variables.h"

#include <fmt/format.h>

#include "client/psi_upload.h"

namespace client {

Reply ChannelVariables::call(Operation operation, u16 variable, Bytes data, const std::string& what) {
  Reply reply = link_.call(makeRequest(operation, variable, channel_.slot, channel_.port, std::move(data)));
  if (reply.result != kDone) {
    throw PsiError(
        fmt::format("{} of {} was refused: {}", what, channelName(channel_), resultText(reply.result)));
  }
  return reply;
}

void ChannelVariables::failOnReply(const std::string& what) const {
  throw PsiError(fmt::format("{} of {}: the reply is not what was asked for; is this server a chassis?", what,
                             channelName(channel_)));
}

bool ChannelVariables::locked() {
  const std::string what = "reading the lock state";
  const auto state = decodeLock(call(Operation::kRead, kVarPsiLock, {}, what).data);
  if (!state) failOnReply(what);
  return *state;
}

void ChannelVariables::setLock(bool locked) {
  call(Operation::kWrite, kVarPsiLock, encodeLock(locked), locked ? "the lock" : "the unlock");
}

void ChannelVariables::writeChunk(const Chunk& chunk) {
  call(Operation::kWrite, kVarPsiPackets, encodeChunk(chunk),
       fmt::format("a chunk of {} on PID {:#06x}", nameOfTableId(chunk.tableId), chunk.pid));
}

ChunkReply ChannelVariables::readChunk(u16 pid, u8 tableId, u8 startPosition) {
  const std::string what = fmt::format("reading {} on PID {:#06x}", nameOfTableId(tableId), pid);
  const Reply reply =
      call(Operation::kRead, kVarPsiPackets, encodeChunkRequest(pid, tableId, startPosition), what);
  const auto chunk = decodeChunkReply(reply.data);
  if (!chunk || chunk->pid != pid || chunk->tableId != tableId || chunk->startPosition != startPosition) {
    failOnReply(what);
  }
  return *chunk;
}

void ChannelVariables::writeInterval(TableType type, u32 ticks) {
  call(Operation::kWrite, kVarPsiInterval, encodeInterval(tableId(type), ticks),
       fmt::format("the interval of {}", tableName(type)));
}

IntervalReply ChannelVariables::readInterval(TableType type) {
  const std::string what = fmt::format("reading the interval of {}", tableName(type));
  const Reply reply = call(Operation::kRead, kVarPsiInterval, encodeIntervalRequest(tableId(type)), what);
  const auto interval = decodeIntervalReply(reply.data);
  if (!interval || interval->tableId != tableId(type)) failOnReply(what);
  return *interval;
}

}  // namespace client
