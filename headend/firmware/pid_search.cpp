#include "headend/firmware/pid_search.h"

#include <algorithm>

#include "mpeg/packet.h"
#include "platform/address_word.h"
#include "ts/qamBack.h"

namespace headend {
namespace {

// Static, for a packet's address travels as a 32-bit word, which names objects of the program image alone.
u8 capturedPackets[MAX_BOARD_NUM][PidSearch::kCaptured]
                  [kTsPacketSize];  // NOLINT(*-avoid-non-const-global-variables)

// The sections of one table in a packet.
struct Content {
  bool startsAny = false;
  bool startsTable = false;
  bool lastIsTable = false;  // the section that continues after the packet's end, or fills it
  bool endsOther = false;    // the packet begins with the end of an earlier section
};

Content contentOf(mpeg::PacketView packet, u8 tableId) {
  Content content;
  std::size_t at = mpeg::payloadStart(packet);
  if (!mpeg::startsUnit(packet) || at >= kTsPacketSize) return content;
  content.endsOther = packet[at] != 0;
  at += 1U + packet[at];
  while (at < kTsPacketSize && packet[at] != 0xFF) {
    content.startsAny = true;
    content.lastIsTable = packet[at] == tableId;
    content.startsTable |= content.lastIsTable;
    if (at + 3 > kTsPacketSize) break;
    at += 3U + ((packet[at + 1] & 0x0FU) << 8 | packet[at + 2]);
  }
  return content;
}

}  // namespace

PidSearch::PidSearch(Kernel& kernel, BackEnd& backEnd, std::function<Multiplexer&(int slot, int port)> output)
    : kernel_(kernel), output_(std::move(output)) {
  for (os::MSG_Q_ID& queue : qamTsReadQID)
    queue = kernel.createQueue(static_cast<int>(kCaptured), sizeof(u32));
  using enum protocol::Operation;
  backEnd.provide(kSearch, BackEnd::Target::kChannel, sizeof(ts_data_set),
                  std::bind_front(&PidSearch::search, this));
  backEnd.provide(kSearched, BackEnd::Target::kChannel, 0, std::bind_front(&PidSearch::searched, this));
}

u32 PidSearch::search(const protocol::Request& request, base::Bytes& /*reply*/) {
  const auto wanted = base::recordOf<ts_data_set>(request.data);
  const auto slot = static_cast<u8>(request.slot);
  const auto port = static_cast<u8>(request.port);
  Multiplexer* output = &output_(slot, port);

  Capture& capture = captures_[slot];
  const qamSearchPSI_t before = qamSearchPSI[slot];
  if (wanted.status != 0 && before.isSearch == 1 && before.pid == wanted.pid &&
      before.tableId == wanted.tableid && capture.output == output) {
    return protocol::kDone;  // the search continues with the captured packets
  }
  if (capture.output != nullptr) capture.output->setTap(Multiplexer::Tap::kSearch, nullptr);
  capture = {};
  qamSetTSPID(slot, port, wanted.pid, wanted.tableid, 0);
  if (wanted.status == 0) return protocol::kDone;
  qamSetTSPID(slot, port, wanted.pid, wanted.tableid, wanted.status);
  output->advance(kernel_.now());  // packets sent before the start do not belong to the search
  capture.output = output;
  output->setTap(Multiplexer::Tap::kSearch, [this, slot](mpeg::PacketView packet) { look(slot, packet); });
  return protocol::kDone;
}

u32 PidSearch::searched(const protocol::Request& request, base::Bytes& reply) {
  const auto slot = static_cast<u8>(request.slot);
  ts_data_rt found{};
  found.pid = qamSearchPSI[slot].pid;
  found.tableid = qamSearchPSI[slot].tableId;
  if (captures_[slot].output != nullptr) captures_[slot].output->advance(kernel_.now());
  post(slot);
  while (found.nmuber < kPacketsPerChunk &&
         qamGetTsPidResult(slot, static_cast<u8>(request.port), found.pkt[found.nmuber]) == 0) {
    ++found.nmuber;
    ++captures_[slot].taken;
  }
  reply = base::bytesOf(found, offsetof(ts_data_rt, pkt) + found.nmuber * kTsPacketSize);
  return protocol::kDone;
}

// Runs in any context, when the packet leaves the output: it only copies.
void PidSearch::look(std::size_t slot, mpeg::PacketView packet) {
  const qamSearchPSI_t& wanted = qamSearchPSI[slot];
  if (wanted.isSearch == 0 || mpeg::pidOf(packet) != wanted.pid) return;
  Capture& capture = captures_[slot];
  const Content content = contentOf(packet, wanted.tableId);
  const bool continues = capture.inTable && (!content.startsAny || content.endsOther);
  if (content.startsAny) capture.inTable = content.lastIsTable;
  if (!continues && !content.startsTable) return;
  if (capture.written - capture.taken >= kCaptured) {
    capture.inTable = false;  // a section with a gap is useless
    return;
  }
  std::copy(packet.begin(), packet.end(), capturedPackets[slot][capture.written % kCaptured]);
  ++capture.written;
}

void PidSearch::post(std::size_t slot) {
  Capture& capture = captures_[slot];
  for (; capture.queued < capture.written; ++capture.queued) {
    const u32 word = os::addressWord(capturedPackets[slot][capture.queued % kCaptured]);
    kernel_.send(qamTsReadQID[slot], {reinterpret_cast<const char*>(&word), sizeof word}, os::NO_WAIT);
  }
}

}  // namespace headend
