#include "headend/firmware/carousel_monitor.h"

#include <algorithm>
#include <cstring>

namespace headend {
namespace {

bool startsGroup(const QamCardPara& record, std::size_t port, u32 index) {
  const outPsiPkt_t& packet = record.psiPkt[port][index];
  if (packet.psiType != PMT) return mpeg::startsUnit(packet.psiData);
  const auto before = std::span(record.psiPkt[port]).first(index);
  return std::ranges::count(before, packet.psiType, &outPsiPkt_t::psiType) == 0;
}

}  // namespace

void CarouselMonitor::queueCreated(const os::MsgQ* queue, int slot) {
  auto& channels = channels_[static_cast<std::size_t>(slot)];
  const auto next = std::ranges::find(channels, nullptr, &Channel::queue);
  if (next != channels.end()) next->queue = queue;
}

void CarouselMonitor::posted(const os::MsgQ* queue, std::span<const char> message, std::uint64_t tick) {
  u32 index = 0;
  if (message.size() != sizeof index) return;
  std::memcpy(&index, message.data(), sizeof index);
  if (index >= kPsiStoreSize) return;
  for (std::size_t slot = 0; slot < channels_.size(); ++slot) {
    for (std::size_t port = 0; port < MAX_QAM_OUT_NUM; ++port) {
      Channel& channel = channels_[slot][port];
      if (channel.queue != queue) continue;
      const QamCardPara* record = GetQamCardParaFromList(static_cast<u8>(slot));
      const u8 type = record->psiPkt[port][index].psiType;
      if (type >= PSINUM) return;
      Table& table = channel.tables[type];
      ++table.posted;
      if (!startsGroup(*record, port, index)) return;
      if (table.lastStart) {
        const std::uint64_t ticks = tick - *table.lastStart;
        table.min_ticks = table.intervals == 0 ? ticks : std::min(table.min_ticks, ticks);
        table.max_ticks = std::max(table.max_ticks, ticks);
        table.sum_ticks += ticks;
        ++table.intervals;
      }
      table.lastStart = tick;
      return;
    }
  }
}

void CarouselMonitor::restart(int slot, int port) {
  for (Table& table : channels_[static_cast<std::size_t>(slot)][static_cast<std::size_t>(port)].tables) {
    table.lastStart.reset();
  }
}

}  // namespace headend
