#include "client/programme_draft.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace client {

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

ProgrammeDraft::ProgrammeDraft(const OutputState& output)
    : owner_(ownerName(output.channel)),
      tables_(output.tables, owner_),
      before_(tables_),
      map_(asKept(output.map)) {
  if (map_.size() != output.map.size()) {
    note(fmt::format("{} map entries that name no slot left out", output.map.size() - map_.size()));
  }
  for (Section& section : tables_.sections(PMT)) pmts_.push_back(std::move(section));
}

std::optional<EntryTable> ProgrammeDraft::table(PsiType type) const {
  const auto sections = tables_.sections(type);
  if (sections.empty()) {
    if (tables_.has(type)) {
      throw Error(fmt::format("{} of {} has no whole section: load it anew first", tableName(type), owner_));
    }
    return std::nullopt;
  }
  return EntryTable(type, sections, owner_);
}

std::vector<Bytes> ProgrammeDraft::entries(PsiType type) const {
  const auto found = table(type);
  return found ? found->entries() : std::vector<Bytes>();
}

void ProgrammeDraft::put(const EntryTable& table, PsiType type) {
  tables_.put(type, tablePid(type).value(), table.sections());
}

void ProgrammeDraft::drop(PsiType type) {
  tables_.put(type, tablePid(type).value(), {});
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
  tables_.put(PMT, pid, onPid);
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
  if (map_.size() > kPidMapSize) {
    throw Error(fmt::format("the PID map of {} would have {} entries, and it holds {}", owner_, map_.size(),
                            kPidMapSize));
  }
  ProgrammePlan plan;
  plan.map = asKept(map_);
  plan.tables = tables_.plan();
  plan.notes = notes_;
  for (const PsiType type : kAllTables) {
    if (tables_.has(type) && !before_.has(type)) plan.fresh.insert(type);
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
