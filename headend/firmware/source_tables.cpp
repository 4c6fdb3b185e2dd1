#include "headend/firmware/source_tables.h"

#include <algorithm>

namespace headend {
namespace {

constexpr u16 kLastReserved = 0x1F;  // up to here PIDs belong to tables (EN 300 468)

}  // namespace

SourceTables::SourceTables() {
  for (const client::TableType type : client::kAllTables) {
    if (const auto pid = client::tablePid(type)) wanted_.set(*pid);
  }
}

std::vector<const client::Bytes*> SourceTables::sections(u16 pid, u8 tableId) const {
  std::vector<const client::Bytes*> all;
  const auto end = sections_.upper_bound({pid, tableId, 0xFFFF, 0xFF});
  for (auto at = sections_.lower_bound({pid, tableId, 0, 0}); at != end; ++at) all.push_back(&at->second);
  return all;
}

void SourceTables::gather(u16 pid, TsPacketView packet) {
  const auto onSection = [this, pid](std::span<const u8> bytes) {
    const client::Section section{.pid = pid, .bytes = {bytes.begin(), bytes.end()}};
    constexpr std::size_t kLeast = client::kSectionHeaderSize + client::kCrcSize;
    const bool whole = section.bytes.size() >= kLeast && section.bytes.size() <= client::kMaxSectionSize;
    if (whole && client::tableOfId(section.tableId()) && section.current() && client::crc32(bytes) == 0) {
      take(section);
    }
  };
  auto found = gatherers_.find(pid);
  if (found == gatherers_.end()) {
    found =
        gatherers_.try_emplace(pid, onSection, [](client::SectionGatherer::Loss, std::optional<u8>) {}).first;
  }
  found->second.push(packet);
}

// A new version of a table replaces the old one, whatever number of sections that had.
void SourceTables::take(const client::Section& section) {
  const Key first{section.pid, section.tableId(), section.extension(), 0};
  const Key last{section.pid, section.tableId(), section.extension(), 0xFF};
  std::erase_if(sections_, [&](const auto& entry) {
    if (entry.first < first || last < entry.first) return false;
    const client::Section old{.pid = section.pid, .bytes = entry.second};
    return old.version() != section.version() || old.number() > section.lastNumber();
  });
  client::Bytes& stored = sections_[{section.pid, section.tableId(), section.extension(), section.number()}];
  if (stored == section.bytes) return;
  stored = section.bytes;
  if (client::tableOfId(section.tableId()) == client::TableType::kPat) follow(section);
}

// Programmes that the PAT names no more are forgotten, for their PIDs may carry something else by now.
void SourceTables::follow(const client::Section& pat) {
  const u8 patId = pat.tableId();
  const u8 pmtId = client::tableId(client::TableType::kPmt);
  std::bitset<kPids> named;
  for (const client::Bytes* bytes : sections(pat.pid, patId)) {
    for (const u16 pid : client::programmeMapPids({.pid = pat.pid, .bytes = *bytes})) named.set(pid);
  }
  for (auto at = gatherers_.begin(); at != gatherers_.end();) {
    const u16 pid = at->first;
    const bool keep = named[pid] || pid <= kLastReserved;
    if (!keep) {
      wanted_.reset(pid);
      std::erase_if(sections_, [&](const auto& e) {
        return std::get<0>(e.first) == pid && std::get<1>(e.first) == pmtId;
      });
    }
    at = keep ? std::next(at) : gatherers_.erase(at);
  }
  wanted_ |= named;
}

}  // namespace headend
