#include "client/programme_plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <map>

#include "platform/wire.h"

namespace client {
namespace {

using Use = PidField::Use;

bool isFrom(const MapEntry& entry, const SourcePort& input) {
  return entry.sourceSlot == input.slot && entry.sourcePort == input.port;
}

std::vector<Bytes> entriesIn(TableType type, const std::vector<Section>& sections, const std::string& owner) {
  return sections.empty() ? std::vector<Bytes>() : EntryTable(type, sections, owner).entries();
}

// The fields that name a PID to be mapped, each PID once, streams first: their order is that of the PIDs in
// the output.
std::vector<PidField> fieldsByPid(const Section& pmt) {
  std::vector<PidField> fields = pidsOfPmt(pmt);
  std::ranges::stable_sort(fields, {}, &PidField::use);
  std::set<u16> seen{kNoPid};
  std::erase_if(fields, [&](const PidField& f) { return !seen.insert(f.pid(pmt.bytes)).second; });
  return fields;
}

std::string fold(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

std::optional<u16> numberIn(const std::string& text) {
  u16 number = 0;
  const char* end = text.data() + text.size();
  const auto [at, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && at == end ? std::optional(number) : std::nullopt;
}

// The output while it is being changed: its map, and its tables, of which those that are put change.
class Draft {
 public:
  explicit Draft(const OutputState& output)
      : owner_(ownerName(output.channel)),
        tables_(output.tables, owner_),
        before_(tables_),
        map_(asKept(output.map)) {
    if (map_.size() != output.map.size()) {
      note(fmt::format("{} map entries that name no slot left out", output.map.size() - map_.size()));
    }
    for (Section& section : tables_.sections(TableType::kPmt)) pmts_.push_back(std::move(section));
  }

  const std::string& owner() const { return owner_; }
  std::vector<MapEntry>& map() { return map_; }
  const std::vector<MapEntry>& map() const { return map_; }
  const std::vector<Section>& pmts() const { return pmts_; }

  std::optional<EntryTable> table(TableType type) const {
    const auto sections = tables_.sections(type);
    if (sections.empty()) {
      if (tables_.has(type)) {
        throw ProgrammeError(
            fmt::format("{} of {} has no whole section: load it anew first", tableName(type), owner_));
      }
      return std::nullopt;
    }
    return EntryTable(type, sections, owner_);
  }
  std::vector<Bytes> entries(TableType type) const {
    const auto found = table(type);
    return found ? found->entries() : std::vector<Bytes>();
  }

  void put(const EntryTable& table, TableType type) {
    tables_.put(type, tablePid(type).value(), table.sections());
  }
  void drop(TableType type) { tables_.put(type, tablePid(type).value(), {}); }

  const Section* pmt(u16 number, u16 pid) const {
    const auto found = std::ranges::find_if(
        pmts_, [&](const Section& s) { return s.extension() == number && s.pid == pid; });
    return found == pmts_.end() ? nullptr : &*found;
  }
  // Puts the programme's PMT in the place of the one it had, or (nothing) takes that away.
  void putPmt(u16 number, u16 pid, const std::optional<Section>& section) {
    std::erase_if(pmts_, [&](const Section& s) { return s.extension() == number && s.pid == pid; });
    if (section) pmts_.push_back(*section);
    std::vector<Section> onPid;
    std::ranges::copy_if(pmts_, std::back_inserter(onPid), [&](const Section& s) { return s.pid == pid; });
    std::ranges::stable_sort(onPid, {}, [](const Section& s) { return s.extension(); });
    tables_.put(TableType::kPmt, pid, onPid);
  }

  MapEntry* entryOf(const SourcePort& input, u16 sourcePid) {
    const auto found = std::ranges::find_if(
        map_, [&](const MapEntry& e) { return isFrom(e, input) && e.sourcePid == sourcePid; });
    return found == map_.end() ? nullptr : &*found;
  }

  // PIDs that the PMTs on the output name, by programme.
  std::map<u16, std::set<u16>> users() const {
    std::map<u16, std::set<u16>> users;
    for (const Section& pmt : pmts_) {
      for (const PidField& field : fieldsByPid(pmt)) users[pmt.extension()].insert(field.pid(pmt.bytes));
    }
    return users;
  }

  std::set<u16> usedPids() const {
    std::set<u16> used;
    for (const MapEntry& entry : map_) used.insert(entry.pid);
    for (const Bytes& entry : entries(TableType::kPat)) used.insert(entryPid(entry));
    for (const auto& [number, pids] : users()) used.insert(pids.begin(), pids.end());
    for (const Bytes& entry : entries(TableType::kCat)) {
      if (const auto field = pidOfCatEntry(entry)) used.insert(field->pid(entry));
    }
    return used;
  }

  void note(std::string text) { notes_.push_back(std::move(text)); }

  ProgrammePlan plan() const {
    if (map_.size() > kMapSize) {
      throw ProgrammeError(fmt::format("the PID map of {} would have {} entries, and it holds {}", owner_,
                                       map_.size(), kMapSize));
    }
    ProgrammePlan plan;
    plan.map = asKept(map_);
    plan.tables = tables_.plan();
    plan.notes = notes_;
    for (const TableType type : kAllTables) {
      if (tables_.has(type) && !before_.has(type)) plan.fresh.insert(type);
    }
    return plan;
  }

 private:
  std::string owner_;
  ChannelTables tables_;
  ChannelTables before_;
  std::vector<MapEntry> map_;
  std::vector<Section> pmts_;
  std::vector<std::string> notes_;
};

// `count` PIDs for a programme, the first one for its PMT when that needs one.
std::vector<u16> takePids(const std::set<u16>& used, std::optional<u16> base, std::size_t count,
                          bool firstIsPmt, const std::string& owner) {
  const auto fits = [&](u16 pid, std::size_t position) {
    return !isReservedPid(pid) && !used.contains(pid) &&
           !(position == 0 && firstIsPmt && marksFreePlace(pid));
  };
  if (!base) {  // a block without gaps is easier to read in a list
    for (std::size_t first = kFirstProgrammePid; first + count <= kNoPid; ++first) {
      std::vector<u16> block;
      while (block.size() < count && fits(static_cast<u16>(first + block.size()), block.size()))
        block.push_back(static_cast<u16>(first + block.size()));
      if (block.size() == count) return block;
    }
  }
  std::vector<u16> pids;
  for (u16 pid = base.value_or(kFirstProgrammePid); pid < kNoPid && pids.size() < count; ++pid) {
    if (fits(pid, pids.size())) pids.push_back(pid);
  }
  if (pids.size() < count) {
    throw ProgrammeError(fmt::format("{} has no {} free PIDs from {:#06x} on", owner, count,
                                     base.value_or(kFirstProgrammePid)));
  }
  return pids;
}

// Takes entries out of the map that nobody needs any more, out of those that `candidate` picks. One that
// stays goes over to a programme that uses it.
template <typename Candidate>
void dropUnused(Draft& draft, const Candidate& candidate) {
  const auto users = draft.users();
  const auto userOf = [&](u16 pid) {
    return std::ranges::find_if(users, [pid](const auto& user) { return user.second.contains(pid); });
  };
  const std::vector<MapEntry> before = draft.map();
  std::erase_if(draft.map(), [&](const MapEntry& e) { return candidate(e) && userOf(e.pid) == users.end(); });
  for (MapEntry& entry : draft.map()) {
    const auto user = userOf(entry.pid);
    if (!candidate(entry) || users.contains(entry.programme)) continue;
    const auto sibling = std::ranges::find_if(before, [&](const MapEntry& e) {
      return e.programme == user->first && isFrom(e, {entry.sourceSlot, entry.sourcePort});
    });
    entry.programme = user->first;
    entry.sourceProgramme = sibling == before.end() ? u16{0} : sibling->sourceProgramme;
  }
}

// Programmes on the output that take a PID from the input.
std::set<u16> programmesFrom(const Draft& draft, const SourcePort& input) {
  std::set<u16> numbers;
  for (const auto& [number, pids] : draft.users()) {
    const bool takes = std::ranges::any_of(draft.map(), [&pids = pids, &input](const MapEntry& e) {
      return isFrom(e, input) && pids.contains(e.pid);
    });
    if (takes) numbers.insert(number);
  }
  return numbers;
}

class Adding {
 public:
  Adding(const OutputState& output, const SourceTables& source, u16 number, const AddOptions& options)
      : draft_(output),
        source_(source),
        sourceNumber_(number),
        options_(options),
        from_(inputName(source.input)),
        pmt_(sourcePmt()),
        pat_(draft_.table(TableType::kPat)) {}

  ProgrammePlan run() {
    findOldOne();
    if (!old_) number_ = freeNumber();
    for (const u16 pid : options_.pass) pass(pid);
    mapPids();
    putPat();
    putPmt();
    putCat();
    putSdt();
    ProgrammePlan plan = draft_.plan();
    plan.number = number_;
    plan.pmtPid = pmtPid_;
    plan.name = name_;
    return plan;
  }

 private:
  Section sourcePmt() const {
    std::vector<Section> own;
    std::ranges::copy_if(source_.pmt, std::back_inserter(own),
                         [&](const Section& s) { return s.extension() == sourceNumber_; });
    if (own.empty()) {
      throw ProgrammeError(fmt::format("{} has no PMT of programme {}", from_, sourceNumber_));
    }
    if (own.size() > 1 || own[0].lastNumber() > 0) {
      throw ProgrammeError(fmt::format("the PMT of programme {} on {} has several sections; a PMT has one",
                                       sourceNumber_, from_));
    }
    if (own[0].bytes.size() > kMaxSectionSize) {
      throw ProgrammeError(fmt::format("the PMT of programme {} on {} has {} bytes, and {} are the most",
                                       sourceNumber_, from_, own[0].bytes.size(), kMaxSectionSize));
    }
    return own[0];
  }

  // The same programme, added before.
  void findOldOne() {
    for (const MapEntry& entry : draft_.map()) {
      if (!isFrom(entry, source_.input) || entry.sourceProgramme != sourceNumber_ || entry.programme == 0)
        continue;
      for (const Bytes& p : draft_.entries(TableType::kPat)) {
        if (entryNumber(p) != entry.programme) continue;
        number_ = entry.programme;
        pmtPid_ = entryPid(p);
        if (const Section* pmt = draft_.pmt(number_, pmtPid_)) old_ = *pmt;
        if (old_) return;
      }
    }
  }

  u16 freeNumber() {
    std::set<u16> taken{kNoNetwork};
    for (const TableType type : {TableType::kPat, TableType::kSdtC}) {
      for (const Bytes& entry : draft_.entries(type)) taken.insert(entryNumber(entry));
    }
    u16 number = sourceNumber_;
    while (taken.contains(number)) ++number;  // from 65535 on to 0, which is taken
    if (number != sourceNumber_) {
      draft_.note(fmt::format("programme number {} is taken on {}: it is {} there", sourceNumber_,
                              draft_.owner(), number));
    }
    return number;
  }

  void pass(u16 pid) {
    const bool isShared = pid == kEitPid || pid == kTimePid;
    if (!isShared && isReservedPid(pid)) {
      throw ProgrammeError(
          fmt::format("PID {:#06x} cannot be passed: the card sends tables of its own there, or nobody does; "
                      "0x12 (EIT), 0x14 (TDT and TOT) and those from 0x20 on can",
                      pid));
    }
    if (const MapEntry* entry = draft_.entryOf(source_.input, pid)) {
      if (entry->pid == pid) return;
      throw ProgrammeError(fmt::format("PID {:#06x} of {} is in {} already, as PID {:#06x}", pid, from_,
                                       draft_.owner(), entry->pid));
    }
    if (draft_.usedPids().contains(pid)) {
      throw ProgrammeError(fmt::format("PID {:#06x} of {} cannot be passed: {} has that PID from elsewhere",
                                       pid, from_, draft_.owner()));
    }
    // EIT and time belong to all programmes of an input, any other PID to the one that it came with.
    draft_.map().push_back(mapEntry(pid, pid, 0));
    if (isShared) draft_.map().back().sourceProgramme = draft_.map().back().programme = 0;
  }

  MapEntry mapEntry(u16 sourcePid, u16 pid, u16 type) const {
    return {.sourceSlot = source_.input.slot,
            .sourcePort = source_.input.port,
            .sourcePid = sourcePid,
            .sourceProgramme = sourceNumber_,
            .pid = pid,
            .programme = number_,
            .type = type};
  }

  // PIDs of the entitlements for the programme's CA systems.
  std::vector<Bytes> catEntries() {
    std::set<u16> systems;
    for (const PidField& field : pidsOfPmt(pmt_)) {
      if (field.use == Use::kCa) systems.insert(field.caSystem);
    }
    if (systems.empty()) return {};
    std::vector<Bytes> entries = entriesIn(TableType::kCat, source_.cat, from_);
    std::erase_if(entries, [&](const Bytes& entry) {
      const auto field = pidOfCatEntry(entry);
      return !field || !systems.contains(field->caSystem) || field->pid(entry) == kNoPid;
    });
    draft_.note(entries.empty() ? fmt::format("the programme has CA descriptors, and {} no CAT for them: "
                                              "entitlements do not come with it",
                                              from_)
                                : "the CAT carries the entitlements of the programme's CA systems");
    return entries;
  }

  void mapPids() {
    std::vector<std::pair<u16, u16>> wanted;  // PID on the input, type
    const auto want = [&](u16 pid, u16 type) {
      if (pid < kFirstFreePid) {
        throw ProgrammeError(fmt::format("programme {} of {} names PID {:#06x}, which belongs to tables",
                                         sourceNumber_, from_, pid));
      }
      if (draft_.entryOf(source_.input, pid) == nullptr) wanted.emplace_back(pid, type);
    };
    for (const PidField& field : fieldsByPid(pmt_)) want(field.pid(pmt_.bytes), field.streamType);
    entitlements_ = catEntries();
    for (const Bytes& entry : entitlements_) {
      const u16 pid = pidOfCatEntry(entry)->pid(entry);
      if (std::ranges::none_of(wanted, [&](const auto& w) { return w.first == pid; })) want(pid, 0);
    }
    const bool needsPmt = !old_;
    std::vector<u16> pids = takePids(draft_.usedPids(), options_.base, wanted.size() + (needsPmt ? 1 : 0),
                                     needsPmt, draft_.owner());
    if (needsPmt) {
      pmtPid_ = pids.front();
      pids.erase(pids.begin());
    }
    for (std::size_t i = 0; i < wanted.size(); ++i)
      draft_.map().push_back(mapEntry(wanted[i].first, pids[i], wanted[i].second));
  }

  u16 mapped(u16 sourcePid) {
    const MapEntry* entry = sourcePid == kNoPid ? nullptr : draft_.entryOf(source_.input, sourcePid);
    return entry == nullptr ? kNoPid : entry->pid;
  }

  u16 transportStreamId() {
    if (pat_) return pat_->extension();
    if (const auto sdt = draft_.table(TableType::kSdtC)) return sdt->extension();
    if (options_.transportStreamId) return *options_.transportStreamId;
    draft_.note(
        fmt::format("{} has no transport_stream_id yet: it gets 1 (--ts-id sets another)", draft_.owner()));
    return 1;
  }

  void putPat() {
    if (old_) return;
    streamId_ = transportStreamId();
    if (options_.transportStreamId && *options_.transportStreamId != streamId_) {
      draft_.note(fmt::format("{} keeps its transport_stream_id {}", draft_.owner(), streamId_));
    }
    EntryTable pat = pat_ ? *pat_ : EntryTable(TableType::kPat, streamId_, {});
    pat.add(patEntry(number_, pmtPid_));
    draft_.put(pat, TableType::kPat);
  }

  void putPmt() {
    Section pmt = pmt_;
    pmt.pid = pmtPid_;
    for (const PidField& field : pidsOfPmt(pmt_)) field.set(pmt.bytes, mapped(field.pid(pmt_.bytes)));
    wire::put16(&pmt.bytes[3], number_);
    setVersion(pmt, old_ ? old_->version() : u8{0});
    if (old_ && pmt == *old_) {
      draft_.note("its PMT is on the air already");
      return;
    }
    if (old_) setVersion(pmt, nextVersion(old_->version()));
    draft_.putPmt(number_, pmtPid_, pmt);
    if (!old_) return;
    std::set<u16> left;
    for (const PidField& field : pidsOfPmt(*old_)) left.insert(field.pid(old_->bytes));
    dropUnused(draft_, [&](const MapEntry& e) { return left.contains(e.pid); });
  }

  void putCat() {
    if (entitlements_.empty()) return;
    const auto there = draft_.table(TableType::kCat);
    EntryTable cat = there ? *there : EntryTable(TableType::kCat, 0xFFFF, {});
    bool changed = false;
    for (Bytes entry : entitlements_) {
      const PidField field = *pidOfCatEntry(entry);
      field.set(entry, mapped(field.pid(entry)));
      const auto have = cat.entries();
      if (std::ranges::find(have, entry) != have.end()) continue;
      const bool other = std::ranges::any_of(have, [&](const Bytes& e) {
        const auto f = pidOfCatEntry(e);
        return f && f->caSystem == field.caSystem;
      });
      if (other) {
        draft_.note(fmt::format("the CAT of {} has CA system {:#06x} twice: receivers may take either",
                                draft_.owner(), field.caSystem));
      }
      cat.add(std::move(entry));
      changed = true;
    }
    if (changed) draft_.put(cat, TableType::kCat);
  }

  bool passesEit() {
    const MapEntry* entry = draft_.entryOf(source_.input, kEitPid);
    return entry != nullptr && entry->pid == kEitPid;
  }

  std::optional<Bytes> sourceService(u16 number) const {
    for (Bytes& entry : entriesIn(TableType::kSdtC, source_.sdt, from_)) {
      if (entryNumber(entry) == number) return std::move(entry);
    }
    return std::nullopt;
  }

  void putSdt() {
    auto service = sourceService(sourceNumber_);
    if (!service) {
      draft_.note(fmt::format("{} has no SDT entry for the programme: it has no name on {} either", from_,
                              draft_.owner()));
      return;
    }
    name_ = serviceName(*service);
    auto sdt = draft_.table(TableType::kSdtC);
    if (!sdt) {
      const EntryTable theirs(TableType::kSdtC, source_.sdt, from_);
      sdt.emplace(TableType::kSdtC, old_ ? transportStreamId() : streamId_, theirs.head());
      draft_.note(fmt::format("{} has no SDT yet: it gets the original_network_id {} of {}", draft_.owner(),
                              wire::get16(theirs.head().data()), from_));
    }
    const auto before = sdt->entries();
    wire::put16(service->data(), number_);
    if (!passesEit()) setEitFlags(*service, 0);
    if (std::ranges::find(before, *service) == before.end()) {
      sdt->remove([&](const Bytes& entry) { return entryNumber(entry) == number_; });
      sdt->add(*service);
    }
    followEit(*sdt);
    if (sdt->entries() != before) draft_.put(*sdt, TableType::kSdtC);
    if (passesEit()) noteForeignEit(*sdt);
  }

  // Programmes of the input that came before its EIT did.
  void followEit(EntryTable& sdt) {
    if (!passesEit()) return;
    sdt.change([&](Bytes& entry) {
      const auto own = std::ranges::find_if(draft_.map(), [&](const MapEntry& e) {
        return isFrom(e, source_.input) && e.programme == entryNumber(entry) && e.sourceProgramme != 0;
      });
      if (own == draft_.map().end()) return;
      if (const auto theirs = sourceService(own->sourceProgramme)) setEitFlags(entry, eitFlags(*theirs));
    });
  }

  void noteForeignEit(const EntryTable& sdt) {
    const EntryTable theirs(TableType::kSdtC, source_.sdt, from_);
    if (theirs.extension() == sdt.extension() && theirs.head() == sdt.head() && number_ == sourceNumber_)
      return;
    draft_.note(fmt::format(
        "the EIT names the programme as {}, stream {}, network {}, which is not what it is on {}: "
        "receivers may not find its events",
        sourceNumber_, theirs.extension(), wire::get16(theirs.head().data()), draft_.owner()));
  }

  Draft draft_;
  const SourceTables& source_;
  u16 sourceNumber_;
  const AddOptions& options_;
  std::string from_;
  Section pmt_;
  std::optional<EntryTable> pat_;
  std::optional<Section> old_;  // the PMT that it has on the output already
  u16 number_ = 0;
  u16 pmtPid_ = 0;
  u16 streamId_ = 0;
  std::string name_;
  std::vector<Bytes> entitlements_;  // CAT entries as the input has them
};

class Removing {
 public:
  Removing(const OutputState& output, u16 number) : draft_(output), number_(number) {}

  ProgrammePlan run() {
    auto pat = draft_.table(TableType::kPat);
    const auto pmtPid = pat ? pmtPidOf(pat->sections(), number_) : std::nullopt;
    if (!pmtPid) throw ProgrammeError(fmt::format("{} has no programme {}", draft_.owner(), number_));
    if (const Section* pmt = draft_.pmt(number_, *pmtPid)) {
      for (const PidField& field : pidsOfPmt(*pmt)) pids_.insert(field.pid(pmt->bytes));
    }
    pat->remove([&](const Bytes& entry) { return entryNumber(entry) == number_; });
    draft_.put(*pat, TableType::kPat);
    draft_.putPmt(number_, *pmtPid, std::nullopt);
    const std::string name = removeService();

    std::set<SourcePort> inputs;
    for (const MapEntry& entry : draft_.map()) {
      if (isOwn(entry)) inputs.insert({.slot = entry.sourceSlot, .port = entry.sourcePort});
    }
    for (const SourcePort& input : inputs) removeEntitlements(input);
    dropUnused(draft_, [&](const MapEntry& e) { return isOwn(e) && !entitlements_.contains(e.pid); });
    for (const SourcePort& input : inputs) removePassed(input);

    ProgrammePlan plan = draft_.plan();
    plan.number = number_;
    plan.pmtPid = *pmtPid;
    plan.name = name;
    return plan;
  }

 private:
  bool isOwn(const MapEntry& entry) const { return entry.programme == number_ || pids_.contains(entry.pid); }

  std::string removeService() {
    std::string name;
    auto sdt = draft_.table(TableType::kSdtC);
    if (!sdt) return name;
    const auto before = sdt->entries();
    sdt->remove([&](const Bytes& entry) {
      if (entryNumber(entry) != number_) return false;
      name = serviceName(entry);
      return true;
    });
    if (sdt->entries() != before) draft_.put(*sdt, TableType::kSdtC);
    return name;
  }

  // CA systems of the programmes that stay and come from the input, with one of the programmes each.
  std::map<u16, u16> systemsFrom(const SourcePort& input) const {
    const std::set<u16> staying = programmesFrom(draft_, input);
    std::map<u16, u16> systems;
    for (const Section& pmt : draft_.pmts()) {
      if (!staying.contains(pmt.extension())) continue;
      for (const PidField& field : pidsOfPmt(pmt)) {
        if (field.use == Use::kCa) systems.emplace(field.caSystem, pmt.extension());
      }
    }
    return systems;
  }

  // The CAT entries of the programme go with it unless another one from the input has the same CA system.
  void removeEntitlements(const SourcePort& input) {
    auto cat = draft_.table(TableType::kCat);
    if (!cat) return;
    const auto systems = systemsFrom(input);
    const auto before = cat->entries();
    cat->remove([&](const Bytes& entry) {
      const auto field = pidOfCatEntry(entry);
      if (!field) return false;
      const auto own = std::ranges::find_if(draft_.map(), [&](const MapEntry& e) {
        return e.pid == field->pid(entry) && e.programme == number_ && isFrom(e, input);
      });
      if (own == draft_.map().end()) return false;
      const auto heir = systems.find(field->caSystem);
      if (heir == systems.end()) return true;
      own->programme = heir->second;
      own->sourceProgramme = sourceNumberOf(heir->second, input);
      entitlements_.insert(own->pid);
      return false;
    });
    const auto after = cat->entries();
    if (after == before) return;
    if (after.empty())
      draft_.drop(TableType::kCat);
    else
      draft_.put(*cat, TableType::kCat);
  }

  u16 sourceNumberOf(u16 programme, const SourcePort& input) const {
    const auto found = std::ranges::find_if(draft_.map(), [&](const MapEntry& e) {
      return e.programme == programme && isFrom(e, input) && e.sourceProgramme != 0;
    });
    return found == draft_.map().end() ? u16{0} : found->sourceProgramme;
  }

  // EIT and time stay while a programme from the input does.
  void removePassed(const SourcePort& input) {
    if (!programmesFrom(draft_, input).empty()) return;
    std::erase_if(draft_.map(), [&](const MapEntry& e) {
      return isFrom(e, input) && e.programme == 0 && e.sourcePid == e.pid &&
             (e.pid == kEitPid || e.pid == kTimePid);
    });
  }

  Draft draft_;
  u16 number_;
  std::set<u16> pids_;          // that its PMT names
  std::set<u16> entitlements_;  // that stay for another programme
};

}  // namespace

std::vector<MapEntry> asKept(std::vector<MapEntry> map) {
  std::erase_if(map, isBlank);
  std::ranges::stable_sort(map, {}, sourceKey);
  return map;
}

std::optional<u16> pmtPidOf(const std::vector<Section>& pat, u16 number) {
  for (const Bytes& entry : entriesIn(TableType::kPat, pat, "this stream")) {
    if (entryNumber(entry) == number && number != kNoNetwork) return entryPid(entry);
  }
  return std::nullopt;
}

u16 chooseProgramme(const std::vector<Section>& pat, const std::vector<Section>& sdt,
                    const std::string& choice, const std::string& owner) {
  std::map<u16, std::string> programmes;
  for (const Bytes& entry : entriesIn(TableType::kPat, pat, owner))
    programmes.emplace(entryNumber(entry), "");
  programmes.erase(kNoNetwork);
  for (const Bytes& entry : entriesIn(TableType::kSdtC, sdt, owner)) {
    if (const auto found = programmes.find(entryNumber(entry)); found != programmes.end())
      found->second = serviceName(entry);
  }
  if (const auto number = numberIn(choice); number && programmes.contains(*number)) return *number;
  std::vector<u16> named;
  std::string all;
  for (const auto& [number, name] : programmes) {
    if (!name.empty() && fold(name) == fold(choice)) named.push_back(number);
    all += fmt::format("{}{}{}{}", all.empty() ? "" : ", ", number, name.empty() ? "" : " ", name);
  }
  if (named.size() == 1) return named[0];
  if (named.empty()) {
    throw ProgrammeError(
        fmt::format("{} has no programme '{}': it has {}", owner, choice, all.empty() ? "none at all" : all));
  }
  throw ProgrammeError(fmt::format("{} has {} programmes of the name '{}': choose by number, {}", owner,
                                   named.size(), choice, fmt::join(named, " or ")));
}

ProgrammePlan planAdd(const OutputState& output, const SourceTables& source, u16 number,
                      const AddOptions& options) {
  return Adding(output, source, number, options).run();
}

ProgrammePlan planRemove(const OutputState& output, u16 number) {
  return Removing(output, number).run();
}

std::vector<Programme> programmesOf(const OutputState& output) {
  const Draft draft(output);
  std::vector<Programme> programmes;
  for (const Bytes& entry : draft.entries(TableType::kPat)) {
    if (entryNumber(entry) == kNoNetwork) continue;
    Programme programme{.number = entryNumber(entry), .pmtPid = entryPid(entry), .name = {}, .pids = {}};
    if (const Section* pmt = draft.pmt(programme.number, programme.pmtPid)) {
      programme.hasPmt = true;
      programme.pcrPid = pidsOfPmt(*pmt).front().pid(pmt->bytes);
      for (const PidField& field : fieldsByPid(*pmt)) {
        const u16 pid = field.pid(pmt->bytes);
        const auto source = std::ranges::find(draft.map(), pid, &MapEntry::pid);
        programme.pids.push_back(
            {.pid = pid,
             .field = field,
             .source = source == draft.map().end() ? std::nullopt : std::optional(*source)});
      }
    }
    for (const Bytes& service : draft.entries(TableType::kSdtC)) {
      if (entryNumber(service) == programme.number) programme.name = serviceName(service);
    }
    programmes.push_back(std::move(programme));
  }
  return programmes;
}

}  // namespace client
