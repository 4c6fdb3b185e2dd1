#include "headend/firmware/source_cards.h"

#include <algorithm>
#include <cstdio>

#include "platform/wire.h"

namespace headend {
namespace {

constexpr u8 kReceiverType = 1;           // any value except the modulator cards' 27
constexpr std::size_t kReplyMost = 8192;  // bytes of sections in one reply

bool isUsable(const mpeg::Section& section) {
  constexpr std::size_t kLeast = mpeg::kSectionHeaderSize + mpeg::kCrcSize;
  return section.bytes.size() >= kLeast && section.bytes.size() <= mpeg::kMaxSectionSize &&
         mpeg::tableOfId(section.tableId()) && section.current() && mpeg::crc32(section.bytes) == 0;
}

}  // namespace

// ---- The tables of an input ----

SourceTables::SourceTables() {
  for (const PsiType type : mpeg::kAllTables) {
    if (const auto pid = mpeg::tablePid(type)) wanted_.set(*pid);
  }
}

std::vector<const base::Bytes*> SourceTables::sections(u16 pid, u8 tableId) const {
  std::vector<const base::Bytes*> all;
  const auto end = sections_.upper_bound({pid, tableId, 0xFFFF, 0xFF});
  for (auto at = sections_.lower_bound({pid, tableId, 0, 0}); at != end; ++at) all.push_back(&at->second);
  return all;
}

void SourceTables::gather(u16 pid, mpeg::PacketView packet) {
  const auto onSection = [this, pid](std::span<const u8> bytes) {
    const mpeg::Section section{.pid = pid, .bytes = {bytes.begin(), bytes.end()}};
    if (isUsable(section)) take(section);
  };
  gatherers_.try_emplace(pid, onSection).first->second.push(packet);
}

// A new version of a table replaces all sections of the old one.
void SourceTables::take(const mpeg::Section& section) {
  const Key first{section.pid, section.tableId(), section.extension(), 0};
  const Key last{section.pid, section.tableId(), section.extension(), 0xFF};
  std::erase_if(sections_, [&](const auto& entry) {
    if (entry.first < first || last < entry.first) return false;
    const mpeg::Section old{.pid = section.pid, .bytes = entry.second};
    return old.version() != section.version() || old.number() > section.lastNumber();
  });
  base::Bytes& stored = sections_[{section.pid, section.tableId(), section.extension(), section.number()}];
  if (stored == section.bytes) return;
  stored = section.bytes;
  if (mpeg::tableOfId(section.tableId()) == PAT) follow(section);
}

// Programmes that the PAT names no more are forgotten, for their PIDs may carry something else by now.
void SourceTables::follow(const mpeg::Section& pat) {
  std::bitset<kPids> named;
  for (const base::Bytes* bytes : sections(pat.pid, pat.tableId())) {
    for (const u16 pid : mpeg::programmeMapPids({.pid = pat.pid, .bytes = *bytes})) named.set(pid);
  }
  std::erase_if(gatherers_, [&](const auto& gatherer) {
    const u16 pid = gatherer.first;
    if (named[pid] || mpeg::isReservedPid(pid)) return false;
    wanted_.reset(pid);
    std::erase_if(sections_, [&](const auto& e) {
      return std::get<0>(e.first) == pid && std::get<1>(e.first) == mpeg::tableId(PMT);
    });
    return true;
  });
  wanted_ |= named;
}

// ---- The cards ----

SourceCards::SourceCards(const Kernel& kernel, PidRouter& router, BackEnd& backEnd)
    : kernel_(kernel), router_(router) {
  using enum protocol::Operation;
  backEnd.provide(kSourceSections, BackEnd::Target::kChassis, 8,
                  std::bind_front(&SourceCards::sections, this));
  backEnd.provide(kRouterMap, BackEnd::Target::kChannel, {}, std::bind_front(&SourceCards::routerMap, this));
}

void SourceCards::plugIn(int slot, std::vector<std::unique_ptr<TsInput>> inputs) {
  Card& card = cards_[slot];
  card.inputs = std::move(inputs);
  card.tables.resize(card.inputs.size());
  std::snprintf(card.descriptor.cardName, sizeof card.descriptor.cardName, "Source Card %d", slot);
  card.descriptor.slotNo = static_cast<u8>(slot);
  card.descriptor.cardType = kReceiverType;
  card.descriptor.in_port_num = static_cast<u8>(card.inputs.size());
  for (std::size_t i = 0; i < card.inputs.size(); ++i) {
    router_.connectInput(slot, static_cast<int>(i), *card.inputs[i]);
    watch({.slot = static_cast<u16>(slot), .port = static_cast<u32>(i)}, nullptr);
  }
}

bool SourceCards::hasInput(const protocol::SourcePort& input) const {
  const auto card = cards_.find(input.slot);
  return card != cards_.end() && input.port < card->second.inputs.size();
}

// Without a watcher a packet takes less time.
void SourceCards::watch(const protocol::SourcePort& input,
                        const std::function<void(mpeg::PacketView)>& watcher) {
  const int port = static_cast<int>(input.port);
  SourceTables* tables = &cards_.at(input.slot).tables[input.port];
  if (!watcher)
    return router_.onPacket(input.slot, port, [tables](mpeg::PacketView packet) { tables->packet(packet); });
  router_.onPacket(input.slot, port, [tables, watcher](mpeg::PacketView packet) {
    tables->packet(packet);
    watcher(packet);
  });
}

u32 SourceCards::routerMap(const protocol::Request& request, base::Bytes& reply) {
  for (u16 i = 0; i < kPidMapSize; ++i) {
    for (const u16 word : router_.position(request.slot, static_cast<int>(request.port), i))
      base::append16(reply, word);
  }
  return protocol::kDone;
}

u32 SourceCards::sections(const protocol::Request& request, base::Bytes& reply) const {
  router_.deliverUntil(kernel_.now());
  const protocol::SourcePort input{.slot = static_cast<u16>(request.slot & 0xFF), .port = request.port};
  if (!hasInput(input)) return protocol::kNoInput;

  const SourceTables& tables = cards_.at(input.slot).tables[input.port];
  const auto all = tables.sections(wire::get16(request.data.data()), request.data[2]);
  const u32 start = wire::get32(&request.data[4]);
  base::append32(reply, static_cast<u32>(all.size()));
  base::append32(reply, start);
  for (std::size_t i = start; i < all.size() && reply.size() + 2 + all[i]->size() <= kReplyMost; ++i) {
    base::append16(reply, static_cast<u16>(all[i]->size()));
    base::append(reply, *all[i]);
  }
  return protocol::kDone;
}

}  // namespace headend
