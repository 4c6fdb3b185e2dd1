// The packets of a channel's tables: made from the sections of a capture, written to a card, read back from
// it and edited by the programmes.
#pragma once

#include <optional>
#include <vector>

#include "client/link.h"
#include "mpeg/section.h"

namespace client {

// The packets of one table on one PID, in sending order.
struct TablePackets {
  PsiType type{};
  u16 pid = 0;
  std::vector<Packet> packets;

  bool operator==(const TablePackets&) const = default;
};
using Tables = std::vector<TablePackets>;  // ascending by table (as PsiType) and PID; none without packets

// A PID whose low nine bits are all ones marks a free place in the card's store: the next packet would
// overwrite a packet on that PID.
constexpr bool marksFreePlace(u16 pid) {
  return (pid & 0x1FF) == 0x1FF;
}

// The sections are packed in ascending order of table, PID, extension and number, whatever their order here.
Tables packTables(std::vector<Section> sections);
std::vector<Section> sectionsOf(const Tables& tables, PsiType type);
// Of one table, or of all.
std::size_t packetsIn(const Tables& tables, std::optional<PsiType> type = std::nullopt);

// Throws Error with all reasons why a card cannot store and send these tables.
void checkStorable(const Tables& tables);

// With new continuity counters for each PID, because a card does not send the stored ones.
Bytes transportStream(const Tables& tables);

}  // namespace client
