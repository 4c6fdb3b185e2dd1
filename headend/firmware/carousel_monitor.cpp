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

// Ticks from the last start to the one that is due: a group is sent a packet a tick, and the next one follows
// it at the earliest.
u32 dueAfter(const CarouselMonitor::Table& table) {
  return std::max(table.interval, table.packetsOfGroup);
}

bool sharePid(PsiType one, PsiType other) {
  return one != other && mpeg::tablePid(one) && mpeg::tablePid(one) == mpeg::tablePid(other);
}

// Whether packets of the table's group, that of this index of the store, are still to come.
bool isOpen(const QamCardPara& record, int port, PsiType type, u32 index) {
  const auto rest = std::span(record.psiPkt[port]).subspan(index + 1);
  const auto next = std::ranges::find(rest, type, &outPsiPkt_t::psiType);
  return next != rest.end() && !mpeg::startsUnit(next->psiData);
}

// Ticks from `due` on for which a section of another table of the PID kept the group waiting. Of the tables
// that become due in one tick, the card takes the lower type first: a lower one than the section's can only
// start in the tick after its last packet.
u32 heldFrom(const CarouselMonitor::Tables& tables, PsiType type, std::uint64_t due) {
  std::uint64_t free = due;
  for (const PsiType other : mpeg::kAllTables) {
    if (!sharePid(type, other) || tables[other].posted == 0) continue;
    free = std::max(free, tables[other].lastPosted + (type < other ? 1 : 0));
  }
  return static_cast<u32>(free - due);
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
      if (startsGroup(*record, port, index)) begin(channel, static_cast<PsiType>(type), tick);
      Table& table = channel.tables[type];
      ++table.posted;
      ++table.packetsOfGroup;
      table.lastPosted = tick;
      table.lastIndex = index;
      table.interval = record->Interval[port][type];
      return;
    }
  }
}

void CarouselMonitor::begin(Channel& channel, PsiType type, std::uint64_t tick) {
  Table& table = channel.tables[type];
  protocol::GroupStart start{.number = channel.nextStart++, .tick = tick, .table = type};
  if (table.lastStart) {
    const std::uint64_t ticks = tick - *table.lastStart;
    table.min_ticks = table.intervals == 0 ? ticks : std::min(table.min_ticks, ticks);
    table.max_ticks = std::max(table.max_ticks, ticks);
    table.sum_ticks += ticks;
    ++table.intervals;
    start.interval = static_cast<u32>(ticks);
    start.due = dueAfter(table);
    start.held = heldFrom(channel.tables, type, *table.lastStart + start.due);
  }
  table.lastStart = tick;
  table.packetsOfGroup = 0;
  if (table.starts.capacity() == 0) table.starts.set_capacity(kStarts);
  table.starts.push_back(start);
}

void CarouselMonitor::restart(int slot, int port) {
  for (Table& table : channel(slot, port).tables) table.lastStart.reset();
}

void CarouselMonitor::intervalSet(int slot, int port) {
  const QamCardPara* record = GetQamCardParaFromList(static_cast<u8>(slot));
  for (const PsiType type : mpeg::kAllTables) {
    if (record != nullptr && record->Interval[port][type] == 0)
      channel(slot, port).tables[type].lastStart.reset();
  }
}

protocol::GroupStarts CarouselMonitor::starts(int slot, int port, std::uint64_t from,
                                              std::uint64_t now) const {
  const Channel& channel = channels_[static_cast<std::size_t>(slot)][static_cast<std::size_t>(port)];
  const QamCardPara* record = GetQamCardParaFromList(static_cast<u8>(slot));
  protocol::GroupStarts all{.now = now, .next = channel.nextStart};
  for (const PsiType type : mpeg::kAllTables) {
    const Table& table = channel.tables[type];
    std::ranges::copy_if(table.starts, std::back_inserter(all.groups),
                         [from](const protocol::GroupStart& start) { return start.number >= from; });
    protocol::GroupStarts::Table& shown = all.tables[type];
    if (record == nullptr) continue;
    shown.interval = record->Interval[port][type];
    const bool isHeld = std::ranges::any_of(mpeg::kAllTables, [&](PsiType other) {
      const Table& holder = channel.tables[other];
      return sharePid(type, other) && holder.lastStart && isOpen(*record, port, other, holder.lastIndex);
    });
    if (!table.lastStart || isHeld) continue;
    const std::uint64_t due = *table.lastStart + dueAfter(table);
    const std::uint64_t free = due + heldFrom(channel.tables, type, due);
    if (now > free + 1) shown.overdue = static_cast<u32>(now - free);
  }
  std::ranges::sort(all.groups, {}, &protocol::GroupStart::number);
  return all;
}

}  // namespace headend
