#include "client/upload_plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <tuple>

namespace client {
namespace {

TableType typeOf(const Section& section) {
  return tableOfId(section.tableId()).value();
}

void append(UploadPlan& plan, const Section& section, u8& continuity) {
  std::vector<Packet> packets;
  packSection(section, continuity, packets);
  auto& table = plan.tables[indexOf(typeOf(section))];
  ++table.sections;
  table.packets += packets.size();
  plan.packets += packets.size();
  for (const Packet& packet : packets) {
    const Chunk* last = plan.chunks.empty() ? nullptr : &plan.chunks.back();
    if (last == nullptr || last->pid != section.pid || last->tableId != section.tableId() ||
        last->packets.size() == kChunkPackets) {
      plan.chunks.push_back({.pid = section.pid, .tableId = section.tableId(), .packets = {}});
    }
    plan.chunks.back().packets.push_back(packet);
  }
}

std::string reasonsAgainst(const UploadPlan& plan) {
  std::string reasons;
  const auto add = [&](const std::string& reason) { reasons += (reasons.empty() ? "" : "; ") + reason; };
  if (plan.packets > kStoreSize) {
    add(fmt::format("its tables take {} packets, and a channel holds {}", plan.packets, kStoreSize));
  }
  if (const auto pmt = plan.tables[indexOf(TableType::kPmt)].packets; pmt > kMaxPmtPackets) {
    add(fmt::format("its PMTs take {} packets, and a card sends no more than {} of them in order", pmt,
                    kMaxPmtPackets));
  }
  std::set<u16> pids;
  for (const Chunk& chunk : plan.chunks) {
    if (marksFreePlace(chunk.pid)) pids.insert(chunk.pid);
  }
  for (const u16 pid : pids) {
    add(fmt::format(
        "{} on PID {:#06x}: the low nine bits of this PID are all ones, which marks a free place in the "
        "card's store",
        tableName(TableType::kPmt), pid));
  }
  return reasons;
}

}  // namespace

UploadPlan planUpload(std::vector<Section> sections) {
  std::ranges::stable_sort(
      sections, {}, [](const Section& s) { return std::tuple(typeOf(s), s.pid, s.extension(), s.number()); });
  UploadPlan plan;
  std::map<u16, u8> continuity;
  for (const Section& section : sections) append(plan, section, continuity[section.pid]);
  if (const std::string reasons = reasonsAgainst(plan); !reasons.empty()) {
    throw PlanError("a card cannot hold this capture: " + reasons);
  }
  return plan;
}

}  // namespace client
