#include "headend/firmware/source_tables.h"

#include <algorithm>

namespace headend {
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
    constexpr std::size_t kLeast = mpeg::kSectionHeaderSize + mpeg::kCrcSize;
    const bool whole = section.bytes.size() >= kLeast && section.bytes.size() <= mpeg::kMaxSectionSize;
    if (whole && mpeg::tableOfId(section.tableId()) && section.current() && mpeg::crc32(bytes) == 0) {
      take(section);
    }
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
  const u8 patId = pat.tableId();
  const u8 pmtId = mpeg::tableId(PMT);
  std::bitset<kPids> named;
  for (const base::Bytes* bytes : sections(pat.pid, patId)) {
    for (const u16 pid : mpeg::programmeMapPids({.pid = pat.pid, .bytes = *bytes})) named.set(pid);
  }
  for (auto at = gatherers_.begin(); at != gatherers_.end();) {
    const u16 pid = at->first;
    const bool keep = named[pid] || mpeg::isReservedPid(pid);
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
