#include "client/table_packets.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <tuple>

namespace client {
namespace {

// The PMT list is one group, and positions in a group have 8 bits.
constexpr std::size_t kMaxPmtPackets = 255;

PsiType typeOf(const Section& section) {
  return tableOfId(section.tableId()).value();
}

}  // namespace

Tables packTables(std::vector<Section> sections) {
  std::ranges::stable_sort(
      sections, {}, [](const Section& s) { return std::tuple(typeOf(s), s.pid, s.extension(), s.number()); });
  Tables tables;
  std::map<u16, u8> continuity;
  for (const Section& section : sections) {
    const PsiType type = typeOf(section);
    if (tables.empty() || tables.back().type != type || tables.back().pid != section.pid)
      tables.push_back({.type = type, .pid = section.pid, .packets = {}});
    packSection(section, continuity[section.pid], tables.back().packets);
  }
  return tables;
}

std::vector<Section> sectionsOf(const Tables& tables, PsiType type) {
  std::vector<Section> sections;
  for (const TablePackets& table : tables) {
    if (table.type == type) std::ranges::move(gatherSections(table.packets), std::back_inserter(sections));
  }
  std::erase_if(sections, [&](const Section& s) { return s.tableId() != tableId(type); });
  return sections;
}

std::size_t packetsIn(const Tables& tables, std::optional<PsiType> type) {
  std::size_t sum = 0;
  for (const TablePackets& table : tables) {
    if (!type || table.type == *type) sum += table.packets.size();
  }
  return sum;
}

void checkStorable(const Tables& tables) {
  std::vector<std::string> reasons;
  if (const auto packets = packetsIn(tables); packets > kPsiStoreSize)
    reasons.push_back(fmt::format("they take {} packets, and a channel holds {}", packets, kPsiStoreSize));
  if (const auto pmt = packetsIn(tables, PMT); pmt > kMaxPmtPackets) {
    reasons.push_back(fmt::format(
        "the PMTs take {} packets, and a card sends no more than {} of them in order", pmt, kMaxPmtPackets));
  }
  for (const TablePackets& table : tables) {
    if (!marksFreePlace(table.pid)) continue;
    reasons.push_back(
        fmt::format("{} on PID {:#06x}: the low nine bits of this PID are all ones, which marks a free place "
                    "in the card's store",
                    tableName(table.type), table.pid));
  }
  if (!reasons.empty()) fail("a card cannot hold these tables: {}", fmt::join(reasons, "; "));
}

Bytes transportStream(const Tables& tables) {
  Bytes stream;
  std::map<u16, u8> continuity;
  for (const TablePackets& table : tables) {
    for (Packet packet : table.packets) {
      setContinuity(packet, continuity[table.pid]++);
      base::append(stream, packet);
    }
  }
  return stream;
}

}  // namespace client
