#include "client/programme_draft.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace client {

constexpr u32 kUsualInterval_ticks = 300;  // for a table that was stopped and is now on the air

bool isFrom(const MapEntry& entry, const SourcePort& input) {
  return entry.sourceSlot == input.slot && entry.sourcePort == input.port;
}

std::vector<PidField> fieldsByPid(const Section& pmt) {
  std::vector<PidField> fields = pidsOfPmt(pmt);
  std::ranges::stable_sort(fields, {}, &PidField::use);
  std::set<u16> seen{kNullPid};
  std::erase_if(fields, [&](const PidField& f) { return !seen.insert(f.pid(pmt.bytes)).second; });
  return fields;
}

ProgrammeDraft::ProgrammeDraft(const ChannelState& output)
    : owner_(ownerName(output.channel)),
      before_(output.psi),
      tables_(output.psi.readable()),
      map_(asKept(output.map.entries)) {
  if (const std::size_t lost = before_.outOfReach(); lost > 0) {
    throw Error(
        fmt::format("{} holds {} packets of tables that cannot be read back, and a change would lose them: "
                    "load tables of fewer packets first",
                    owner_, lost));
  }
  if (map_.size() != output.map.entries.size()) {
    note(fmt::format("{} map entries that name no slot left out", output.map.entries.size() - map_.size()));
  }
  pmts_ = sections(PMT);
}

std::vector<Section> ProgrammeDraft::sections(PsiType type) const {
  std::vector<Section> all;
  for (const TablePackets& table : tables_) {
    if (table.type == type) std::ranges::move(sectionsOf(table), std::back_inserter(all));
  }
  return all;
}

std::optional<EntryTable> ProgrammeDraft::table(PsiType type) const {
  const auto found = sections(type);
  if (found.empty()) {
    if (packetsIn(tables_, type) > 0) {
      throw Error(fmt::format("{} of {} has no whole section: load it anew first", tableName(type), owner_));
    }
    return std::nullopt;
  }
  return EntryTable(type, found, owner_);
}

std::vector<Bytes> ProgrammeDraft::entries(PsiType type) const {
  const auto found = table(type);
  return found ? found->entries() : std::vector<Bytes>();
}

void ProgrammeDraft::put(PsiType type, u16 pid, const std::vector<Section>& sections) {
  const auto key = [](const TablePackets& table) { return std::pair(table.type, table.pid); };
  std::erase_if(tables_, [&](const TablePackets& table) { return key(table) == std::pair(type, pid); });
  if (sections.empty()) return;
  TablePackets table{.type = type, .pid = pid, .packets = {}};
  u8 continuity = 0;
  for (const Section& section : sections) packSection(section, continuity, table.packets);
  tables_.insert(std::ranges::upper_bound(tables_, key(table), {}, key), std::move(table));
}

const Section* ProgrammeDraft::pmt(u16 number, u16 pid) const {
  const auto found =
      std::ranges::find_if(pmts_, [&](const Section& s) { return s.extension() == number && s.pid == pid; });
  return found == pmts_.end() ? nullptr : &*found;
}

void ProgrammeDraft::putPmt(u16 number, u16 pid, const std::optional<Section>& section) {
  std::erase_if(pmts_, [&](const Section& s) { return s.extension() == number && s.pid == pid; });
  if (section) pmts_.push_back(*section);
  std::vector<Section> onPid;
  std::ranges::copy_if(pmts_, std::back_inserter(onPid), [&](const Section& s) { return s.pid == pid; });
  std::ranges::stable_sort(onPid, {}, [](const Section& s) { return s.extension(); });
  put(PMT, pid, onPid);
}

MapEntry* ProgrammeDraft::entryOf(const SourcePort& input, u16 sourcePid) {
  const auto found = std::ranges::find_if(
      map_, [&](const MapEntry& e) { return isFrom(e, input) && e.sourcePid == sourcePid; });
  return found == map_.end() ? nullptr : &*found;
}

std::map<u16, std::set<u16>> ProgrammeDraft::users() const {
  std::map<u16, std::set<u16>> users;
  for (const Section& pmt : pmts_) {
    for (const PidField& field : fieldsByPid(pmt)) users[pmt.extension()].insert(field.pid(pmt.bytes));
  }
  return users;
}

std::set<u16> ProgrammeDraft::usedPids() const {
  std::set<u16> used;
  for (const MapEntry& entry : map_) used.insert(entry.pid);
  for (const Bytes& entry : entries(PAT)) used.insert(entryPid(entry));
  for (const auto& [number, pids] : users()) used.insert(pids.begin(), pids.end());
  for (const Bytes& entry : entries(CAT)) {
    if (const auto field = pidOfCatEntry(entry)) used.insert(field->pid(entry));
  }
  return used;
}

ProgrammePlan ProgrammeDraft::plan() const {
  ProgrammePlan plan;
  plan.map = asKept(map_);
  plan.tables = tables_;
  plan.notes = notes_;
  for (const PsiType type : kAllTables) {
    const StoredTable& old = before_.tables[type];
    if (packetsIn(tables_, type) > 0 && old.stored == 0 && old.interval_ticks == 0)
      plan.intervals[type] = kUsualInterval_ticks;
  }
  return plan;
}

std::set<u16> ProgrammeDraft::programmesFrom(const SourcePort& input) const {
  std::set<u16> numbers;
  for (const auto& [number, pids] : users()) {
    const bool takes = std::ranges::any_of(
        map_, [&pids = pids, &input](const MapEntry& e) { return isFrom(e, input) && pids.contains(e.pid); });
    if (takes) numbers.insert(number);
  }
  return numbers;
}

void ProgrammeDraft::dropUnused(const std::function<bool(const MapEntry&)>& candidate) {
  const auto byProgramme = users();
  const auto userOf = [&](u16 pid) {
    return std::ranges::find_if(byProgramme, [pid](const auto& user) { return user.second.contains(pid); });
  };
  const std::vector<MapEntry> before = map_;
  std::erase_if(map_, [&](const MapEntry& e) { return candidate(e) && userOf(e.pid) == byProgramme.end(); });
  for (MapEntry& entry : map_) {
    const auto user = userOf(entry.pid);
    if (!candidate(entry) || byProgramme.contains(entry.programme)) continue;
    const auto sibling = std::ranges::find_if(before, [&](const MapEntry& e) {
      return e.programme == user->first && isFrom(e, {entry.sourceSlot, entry.sourcePort});
    });
    entry.programme = user->first;
    entry.sourceProgramme = sibling == before.end() ? u16{0} : sibling->sourceProgramme;
  }
}

}  // namespace client
