#include "headend/firmware/source_cards.h"

#include <algorithm>
#include <cstdio>

#include "platform/wire.h"

namespace headend {
namespace {

constexpr u8 kReceiverType = 1;           // any value except the modulator cards' 27
constexpr std::size_t kReplyMost = 8192;  // bytes of sections in one reply

}  // namespace

void SourceCards::plugIn(int slot, std::vector<std::unique_ptr<TsInput>> inputs) {
  Card& card = cards_[slot];
  card.inputs = std::move(inputs);
  card.tables.resize(card.inputs.size());
  std::snprintf(card.descriptor.cardName, sizeof card.descriptor.cardName, "Source Card %d", slot);
  card.descriptor.slotNo = static_cast<u8>(slot);
  card.descriptor.cardType = kReceiverType;
  card.descriptor.in_port_num = static_cast<u8>(card.inputs.size());
  for (std::size_t i = 0; i < card.inputs.size(); ++i) {
    const int port = static_cast<int>(i);
    router_.connectInput(slot, port, *card.inputs[i]);
    router_.onPacket(slot, port,
                     [tables = &card.tables[i]](mpeg::PacketView packet) { tables->packet(packet); });
  }
}

std::vector<int> SourceCards::slots() const {
  std::vector<int> all;
  for (const auto& [slot, card] : cards_) all.push_back(slot);
  return all;
}

void SourceCards::provide(BackEnd& backEnd) {
  using enum protocol::Operation;
  backEnd.provide(kSourceSections, BackEnd::Target::kChassis, std::bind_front(&SourceCards::sections, this));
  backEnd.provide(kRouterMap, BackEnd::Target::kChannel, std::bind_front(&SourceCards::routerMap, this));
}

u32 SourceCards::routerMap(const protocol::Request& request, base::Bytes& reply) {
  for (u16 i = 0; i < kPidMapSize; ++i) {
    for (const u16 word : router_.position(request.slot, static_cast<int>(request.port), i))
      base::append16(reply, word);
  }
  return protocol::kDone;
}

u32 SourceCards::sections(const protocol::Request& request, base::Bytes& reply) const {
  constexpr std::size_t kRequestSize = 8;
  if (request.data.size() != kRequestSize) return protocol::kBadLength;
  router_.deliverUntil(kernel_.now());
  const auto card = cards_.find(request.slot & 0xFF);
  if (card == cards_.end() || request.port >= card->second.inputs.size()) return protocol::kNoInput;

  const SourceTables& tables = card->second.tables[request.port];
  const auto all = tables.sections(wire::get16(request.data.data()), request.data[2]);
  const u32 start = wire::get32(&request.data[4]);
  reply.resize(8);
  wire::put32(reply.data(), static_cast<u32>(all.size()));
  wire::put32(&reply[4], start);
  for (std::size_t i = start; i < all.size() && reply.size() + 2 + all[i]->size() <= kReplyMost; ++i) {
    reply.resize(reply.size() + 2);
    wire::put16(&reply[reply.size() - 2], static_cast<u16>(all[i]->size()));
    reply.insert(reply.end(), all[i]->begin(), all[i]->end());
  }
  return protocol::kDone;
}

}  // namespace headend
