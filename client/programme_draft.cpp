#include "client/programme_draft.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace client {

constexpr u32 kUsualInterval_ticks = 300;  // for a table that was stopped and is now on the air

std::vector<PidField> fieldsByPid(const Section& pmt) {
  std::vector<PidField> fields = pidsOfPmt(pmt);
  std::ranges::stable_sort(fields, {}, &PidField::use);
  std::set<u16> seen{kNullPid};
  std::erase_if(fields, [&](const PidField& f) { return !seen.insert(f.pid(pmt.bytes)).second; });
  return fields;
}

std::set<u16> pidSetOf(const Section& pmt) {
  std::set<u16> pids;
  for (const PidField& field : pidsOfPmt(pmt)) pids.insert(field.pid(pmt.bytes));
  return pids;
}

ProgrammeDraft::ProgrammeDraft(const ChannelState& output)
    : owner(ownerName(output.channel)), before_(output.psi), pmts_(sectionsOf(output.psi.readable(), PMT)) {
  map = asKept(output.map.entries);
  tables = before_.readable();
  if (const std::size_t lost = before_.outOfReach(); lost > 0) {
    fail(
        "{} holds {} packets of tables that cannot be read back, and a change would lose them: load tables "
        "of fewer packets first",
        owner, lost);
  }
  if (const std::size_t blank = output.map.entries.size() - map.size(); blank > 0)
    notes.push_back(fmt::format("{} map entries that name no slot left out", blank));
}

EntryTable* ProgrammeDraft::table(PsiType type) {
  if (const auto known = parsed_.find(type); known != parsed_.end()) return &known->second;
  const auto sections = sectionsOf(tables, type);
  if (!sections.empty()) return &parsed_.emplace(type, EntryTable(type, sections, owner)).first->second;
  if (packetsIn(tables, type) > 0)
    fail("{} of {} has no whole section: load it anew first", tableName(type), owner);
  return nullptr;
}

EntryTable& ProgrammeDraft::addTable(PsiType type, u16 extension, Bytes head) {
  return parsed_.emplace(type, EntryTable(type, extension, std::move(head))).first->second;
}

std::vector<Bytes> ProgrammeDraft::entries(PsiType type) {
  const EntryTable* found = table(type);
  return found == nullptr ? std::vector<Bytes>() : found->entries();
}

void ProgrammeDraft::put(PsiType type, u16 pid, const std::vector<Section>& sections) {
  const auto key = [](const TablePackets& table) { return std::pair(table.type, table.pid); };
  std::erase_if(tables, [&](const TablePackets& table) { return key(table) == std::pair(type, pid); });
  std::ranges::move(packTables(sections), std::back_inserter(tables));
  std::ranges::sort(tables, {}, key);
}

std::optional<Section> ProgrammeDraft::pmt(u16 programme, u16 pid) const {
  const auto found = std::ranges::find_if(
      pmts_, [&](const Section& s) { return s.extension() == programme && s.pid == pid; });
  return found == pmts_.end() ? std::nullopt : std::optional(*found);
}

void ProgrammeDraft::putPmt(u16 programme, u16 pid, const std::optional<Section>& section) {
  std::erase_if(pmts_, [&](const Section& s) { return s.extension() == programme && s.pid == pid; });
  if (section) pmts_.push_back(*section);
  std::vector<Section> onPid;
  std::ranges::copy_if(pmts_, std::back_inserter(onPid), [&](const Section& s) { return s.pid == pid; });
  put(PMT, pid, onPid);
}

u16 ProgrammeDraft::routed(const SourcePort& input, u16 sourcePid) const {
  const auto found = std::ranges::find_if(
      map, [&](const MapEntry& e) { return isFrom(e, input) && e.sourcePid == sourcePid; });
  return found == map.end() || sourcePid == kNullPid ? kNullPid : found->pid;
}

u16 ProgrammeDraft::sourceNumber(u16 programme, const SourcePort& input) const {
  const auto found = std::ranges::find_if(map, [&](const MapEntry& e) {
    return e.programme == programme && isFrom(e, input) && e.sourceProgramme != 0;
  });
  return found == map.end() ? u16{0} : found->sourceProgramme;
}

std::map<u16, std::set<u16>> ProgrammeDraft::users() const {
  std::map<u16, std::set<u16>> users;
  for (const Section& pmt : pmts_) {
    auto pids = pidSetOf(pmt);
    pids.erase(kNullPid);
    users[pmt.extension()].merge(pids);
  }
  return users;
}

std::set<u16> ProgrammeDraft::usedPids() {
  std::set<u16> used;
  for (const MapEntry& entry : map) used.insert(entry.pid);
  for (const Bytes& entry : entries(PAT)) used.insert(entryPid(entry));
  for (const Section& pmt : pmts_) used.merge(pidSetOf(pmt));
  for (const Bytes& entry : entries(CAT)) {
    if (const auto field = pidOfCatEntry(entry)) used.insert(field->pid(entry));
  }
  return used;
}

std::set<u16> ProgrammeDraft::programmesFrom(const SourcePort& input) const {
  std::set<u16> numbers;
  for (const auto& [programme, pids] : users()) {
    const bool takes = std::ranges::any_of(
        map, [&pids = pids, &input](const MapEntry& e) { return isFrom(e, input) && pids.contains(e.pid); });
    if (takes) numbers.insert(programme);
  }
  return numbers;
}

void ProgrammeDraft::dropUnused(const std::function<bool(const MapEntry&)>& candidate) {
  const auto byProgramme = users();
  std::set<u16> unused;
  for (MapEntry& entry : map) {
    if (!candidate(entry)) continue;
    const auto user = std::ranges::find_if(
        byProgramme, [&entry](const auto& programme) { return programme.second.contains(entry.pid); });
    if (user == byProgramme.end()) {
      unused.insert(entry.pid);
    } else if (!byProgramme.contains(entry.programme)) {
      entry.sourceProgramme = sourceNumber(user->first, {entry.sourceSlot, entry.sourcePort});
      entry.programme = user->first;
    }
  }
  std::erase_if(map, [&](const MapEntry& e) { return unused.contains(e.pid) && candidate(e); });
}

ProgrammePlan& ProgrammeDraft::finish() {
  for (const auto& [type, table] : parsed_) {
    if (!table.isChanged()) continue;
    const bool isLeftOut = type == CAT && table.entries().empty();
    put(type, tablePid(type).value(), isLeftOut ? std::vector<Section>() : table.sections());
  }
  map = asKept(map);
  for (const PsiType type : kAllTables) {
    const StoredTable& old = before_.tables[type];
    if (packetsIn(tables, type) > 0 && old.stored == 0 && old.interval_ticks == 0)
      intervals[type] = kUsualInterval_ticks;
  }
  return *this;
}

}  // namespace client
