#include "client/upload_plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <tuple>

namespace client {
namespace {

PsiType typeOf(const Section& section) {
  return tableOfId(section.tableId()).value();
}

void append(UploadPlan& plan, const StoredTable& stored) {
  auto& table = plan.tables[stored.type];
  table.sections += stored.sections;
  table.packets += stored.packets.size();
  plan.packets += stored.packets.size();
  for (std::size_t first = 0; first < stored.packets.size(); first += kPacketsPerChunk) {
    const auto begin = stored.packets.begin() + static_cast<std::ptrdiff_t>(first);
    const auto size = std::min<std::size_t>(kPacketsPerChunk, stored.packets.size() - first);
    plan.chunks.push_back({.pid = stored.pid,
                           .tableId = tableId(stored.type),
                           .packets = {begin, begin + static_cast<std::ptrdiff_t>(size)}});
  }
}

std::string reasonsAgainst(const UploadPlan& plan) {
  std::string reasons;
  const auto add = [&](const std::string& reason) { reasons += (reasons.empty() ? "" : "; ") + reason; };
  if (plan.packets > kPsiStoreSize) {
    add(fmt::format("they take {} packets, and a channel holds {}", plan.packets, kPsiStoreSize));
  }
  if (const auto pmt = plan.tables[PMT].packets; pmt > kMaxPmtPackets) {
    add(fmt::format("the PMTs take {} packets, and a card sends no more than {} of them in order", pmt,
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
        tableName(PMT), pid));
  }
  return reasons;
}

}  // namespace

UploadPlan planStored(const std::vector<StoredTable>& tables) {
  UploadPlan plan;
  for (const StoredTable& table : tables) append(plan, table);
  if (const std::string reasons = reasonsAgainst(plan); !reasons.empty()) {
    throw Error("a card cannot hold these tables: " + reasons);
  }
  return plan;
}

UploadPlan planUpload(std::vector<Section> sections) {
  std::ranges::stable_sort(
      sections, {}, [](const Section& s) { return std::tuple(typeOf(s), s.pid, s.extension(), s.number()); });
  std::vector<StoredTable> tables;
  std::map<u16, u8> continuity;
  for (const Section& section : sections) {
    const PsiType type = typeOf(section);
    if (tables.empty() || tables.back().type != type || tables.back().pid != section.pid) {
      tables.push_back({.type = type, .pid = section.pid, .sections = 0, .packets = {}});
    }
    ++tables.back().sections;
    packSection(section, continuity[section.pid], tables.back().packets);
  }
  return planStored(tables);
}

}  // namespace client
