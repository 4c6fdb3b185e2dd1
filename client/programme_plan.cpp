#include "client/programme_plan.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

#include "base/numbers.h"
#include "platform/wire.h"

namespace client {
namespace {

using Use = PidField::Use;

std::vector<Bytes> entriesIn(PsiType type, const std::vector<Section>& sections, const std::string& owner) {
  return sections.empty() ? std::vector<Bytes>() : EntryTable(type, sections, owner).entries();
}

std::string fold(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

// `count` PIDs for a programme, the first one for its PMT when that needs one.
std::vector<u16> takePids(const std::set<u16>& used, std::optional<u16> base, std::size_t count,
                          bool firstIsPmt, const std::string& owner) {
  const auto fits = [&](u16 pid, std::size_t position) {
    return !isReservedPid(pid) && !used.contains(pid) &&
           !(position == 0 && firstIsPmt && marksFreePlace(pid));
  };
  if (!base) {  // a block without gaps is easier to read in a list
    for (std::size_t first = kFirstProgrammePid; first + count <= kNullPid; ++first) {
      std::vector<u16> block;
      while (block.size() < count && fits(static_cast<u16>(first + block.size()), block.size()))
        block.push_back(static_cast<u16>(first + block.size()));
      if (block.size() == count) return block;
    }
  }
  std::vector<u16> pids;
  for (u16 pid = base.value_or(kFirstProgrammePid); pid < kNullPid && pids.size() < count; ++pid) {
    if (fits(pid, pids.size())) pids.push_back(pid);
  }
  if (pids.size() < count) {
    throw Error(fmt::format("{} has no {} free PIDs from {:#06x} on", owner, count,
                            base.value_or(kFirstProgrammePid)));
  }
  return pids;
}

class Adding {
 public:
  Adding(const ChannelState& output, const InputTables& source, u16 number, const AddOptions& options)
      : draft_(output),
        source_(source),
        sourceNumber_(number),
        options_(options),
        from_(inputName(source.input)),
        pmt_(sourcePmt()),
        pat_(draft_.table(PAT)) {}

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
      throw Error(fmt::format("{} has no PMT of programme {}", from_, sourceNumber_));
    }
    if (own.size() > 1 || own[0].lastNumber() > 0) {
      throw Error(fmt::format("the PMT of programme {} on {} has several sections; a PMT has one",
                              sourceNumber_, from_));
    }
    if (own[0].bytes.size() > kMaxSectionSize) {
      throw Error(fmt::format("the PMT of programme {} on {} has {} bytes, and {} are the most",
                              sourceNumber_, from_, own[0].bytes.size(), kMaxSectionSize));
    }
    return own[0];
  }

  // The same programme, added before.
  void findOldOne() {
    for (const MapEntry& entry : draft_.map()) {
      if (!isFrom(entry, source_.input) || entry.sourceProgramme != sourceNumber_ || entry.programme == 0)
        continue;
      for (const Bytes& p : draft_.entries(PAT)) {
        if (entryNumber(p) != entry.programme) continue;
        number_ = entry.programme;
        pmtPid_ = entryPid(p);
        if (const Section* pmt = draft_.pmt(number_, pmtPid_)) old_ = *pmt;
        if (old_) return;
      }
    }
    findByPids();
  }

  // All its entries may belong to another programme, or may have lost their numbers in a release.
  void findByPids() {
    std::set<u16> pids;
    for (const PidField& field : pidsOfPmt(pmt_)) pids.insert(mapped(field.pid(pmt_.bytes)));
    for (const Section& pmt : draft_.pmts()) {
      std::set<u16> theirs;
      for (const PidField& field : pidsOfPmt(pmt)) theirs.insert(field.pid(pmt.bytes));
      if (pmt.extension() != sourceNumber_ || theirs != pids) continue;
      number_ = sourceNumber_;
      pmtPid_ = pmt.pid;
      old_ = pmt;
    }
  }

  u16 freeNumber() {
    std::set<u16> taken{kNoNetwork};
    for (const PsiType type : {PAT, SDT_C}) {
      for (const Bytes& entry : draft_.entries(type)) taken.insert(entryNumber(entry));
    }
    u16 number = sourceNumber_;
    while (taken.contains(number)) ++number;  // from 65535 to 0, which is used
    if (number != sourceNumber_) {
      draft_.note(fmt::format("programme number {} is taken on {}: it is {} there", sourceNumber_,
                              draft_.owner(), number));
    }
    return number;
  }

  void pass(u16 pid) {
    const bool isShared = pid == kEitPid || pid == kTimePid;
    if (!isShared && isReservedPid(pid)) {
      throw Error(
          fmt::format("PID {:#06x} cannot be passed: the card sends tables of its own there, or nobody does; "
                      "0x12 (EIT), 0x14 (TDT and TOT) and those from 0x20 on can",
                      pid));
    }
    if (const MapEntry* entry = draft_.entryOf(source_.input, pid)) {
      if (entry->pid == pid) return;
      throw Error(fmt::format("PID {:#06x} of {} is in {} already, as PID {:#06x}", pid, from_,
                              draft_.owner(), entry->pid));
    }
    if (draft_.usedPids().contains(pid)) {
      throw Error(fmt::format("PID {:#06x} of {} cannot be passed: {} has that PID from elsewhere", pid,
                              from_, draft_.owner()));
    }
    // EIT and time belong to all programmes of an input; any other PID to its own programme.
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
    std::vector<Bytes> entries = entriesIn(CAT, source_.cat, from_);
    std::erase_if(entries, [&](const Bytes& entry) {
      const auto field = pidOfCatEntry(entry);
      return !field || !systems.contains(field->caSystem) || field->pid(entry) == kNullPid;
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
        throw Error(fmt::format("programme {} of {} names PID {:#06x}, which belongs to tables",
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
    const MapEntry* entry = sourcePid == kNullPid ? nullptr : draft_.entryOf(source_.input, sourcePid);
    return entry == nullptr ? kNullPid : entry->pid;
  }

  u16 transportStreamId() {
    if (pat_) return pat_->extension();
    if (const auto sdt = draft_.table(SDT_C)) return sdt->extension();
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
    EntryTable pat = pat_ ? *pat_ : EntryTable(PAT, streamId_, {});
    pat.add(patEntry(number_, pmtPid_));
    draft_.put(pat, PAT);
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
    draft_.dropUnused([&](const MapEntry& e) { return left.contains(e.pid); });
  }

  void putCat() {
    if (entitlements_.empty()) return;
    const auto there = draft_.table(CAT);
    EntryTable cat = there ? *there : EntryTable(CAT, 0xFFFF, {});
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
    if (changed) draft_.put(cat, CAT);
  }

  bool passesEit() {
    const MapEntry* entry = draft_.entryOf(source_.input, kEitPid);
    return entry != nullptr && entry->pid == kEitPid;
  }

  std::optional<Bytes> sourceService(u16 number) const {
    for (Bytes& entry : entriesIn(SDT_C, source_.sdt, from_)) {
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
    auto sdt = draft_.table(SDT_C);
    if (!sdt) {
      const EntryTable theirs(SDT_C, source_.sdt, from_);
      sdt.emplace(SDT_C, old_ ? transportStreamId() : streamId_, theirs.head());
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
    if (sdt->entries() != before) draft_.put(*sdt, SDT_C);
    if (passesEit()) noteForeignEit(*sdt);
  }

  // Programmes of the input that were added before its EIT.
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
    const EntryTable theirs(SDT_C, source_.sdt, from_);
    if (theirs.extension() == sdt.extension() && theirs.head() == sdt.head() && number_ == sourceNumber_)
      return;
    draft_.note(
        fmt::format("the EIT names the programme as {}, stream {}, network {}, which is not what it is on "
                    "{}: receivers may not find its events",
                    sourceNumber_, theirs.extension(), wire::get16(theirs.head().data()), draft_.owner()));
  }

  ProgrammeDraft draft_;
  const InputTables& source_;
  u16 sourceNumber_;
  const AddOptions& options_;
  std::string from_;
  Section pmt_;
  std::optional<EntryTable> pat_;
  std::optional<Section> old_;  // its current PMT on the output
  u16 number_ = 0;
  u16 pmtPid_ = 0;
  u16 streamId_ = 0;
  std::string name_;
  std::vector<Bytes> entitlements_;  // CAT entries as on the input
};

class Removing {
 public:
  Removing(const ChannelState& output, u16 number) : draft_(output), number_(number) {}

  ProgrammePlan run() {
    auto pat = draft_.table(PAT);
    const auto pmtPid = pat ? pmtPidOf(pat->sections(), number_) : std::nullopt;
    if (!pmtPid) throw Error(fmt::format("{} has no programme {}", draft_.owner(), number_));
    if (const Section* pmt = draft_.pmt(number_, *pmtPid)) {
      for (const PidField& field : pidsOfPmt(*pmt)) pids_.insert(field.pid(pmt->bytes));
    }
    pat->remove([&](const Bytes& entry) { return entryNumber(entry) == number_; });
    draft_.put(*pat, PAT);
    draft_.putPmt(number_, *pmtPid, std::nullopt);
    const std::string name = removeService();

    std::set<SourcePort> inputs;
    for (const MapEntry& entry : draft_.map()) {
      if (isOwn(entry)) inputs.insert({.slot = entry.sourceSlot, .port = entry.sourcePort});
    }
    for (const SourcePort& input : inputs) removeEntitlements(input);
    draft_.dropUnused([&](const MapEntry& e) { return isOwn(e); });
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
    auto sdt = draft_.table(SDT_C);
    if (!sdt) return name;
    const auto before = sdt->entries();
    sdt->remove([&](const Bytes& entry) {
      if (entryNumber(entry) != number_) return false;
      name = serviceName(entry);
      return true;
    });
    if (sdt->entries() != before) draft_.put(*sdt, SDT_C);
    return name;
  }

  // CA systems of the remaining programmes from the input, with one of the programmes each.
  std::map<u16, u16> systemsFrom(const SourcePort& input) const {
    const std::set<u16> staying = draft_.programmesFrom(input);
    std::map<u16, u16> systems;
    for (const Section& pmt : draft_.pmts()) {
      if (!staying.contains(pmt.extension())) continue;
      for (const PidField& field : pidsOfPmt(pmt)) {
        if (field.use == Use::kCa) systems.emplace(field.caSystem, pmt.extension());
      }
    }
    return systems;
  }

  // The programme's CAT entries are removed unless another programme from the input has the same CA system.
  void removeEntitlements(const SourcePort& input) {
    auto cat = draft_.table(CAT);
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
      return false;
    });
    const auto after = cat->entries();
    if (after == before) return;
    if (after.empty())
      draft_.drop(CAT);
    else
      draft_.put(*cat, CAT);
  }

  u16 sourceNumberOf(u16 programme, const SourcePort& input) const {
    const auto found = std::ranges::find_if(draft_.map(), [&](const MapEntry& e) {
      return e.programme == programme && isFrom(e, input) && e.sourceProgramme != 0;
    });
    return found == draft_.map().end() ? u16{0} : found->sourceProgramme;
  }

  // EIT and time stay while a programme from the input is left.
  void removePassed(const SourcePort& input) {
    if (!draft_.programmesFrom(input).empty()) return;
    std::erase_if(draft_.map(), [&](const MapEntry& e) {
      return isFrom(e, input) && e.programme == 0 && e.sourcePid == e.pid &&
             (e.pid == kEitPid || e.pid == kTimePid);
    });
  }

  ProgrammeDraft draft_;
  u16 number_;
  std::set<u16> pids_;  // PIDs in its PMT
};

}  // namespace

std::optional<u16> pmtPidOf(const std::vector<Section>& pat, u16 number) {
  for (const Bytes& entry : entriesIn(PAT, pat, "this stream")) {
    if (entryNumber(entry) == number && number != kNoNetwork) return entryPid(entry);
  }
  return std::nullopt;
}

u16 chooseProgramme(const std::vector<Section>& pat, const std::vector<Section>& sdt,
                    const std::string& choice, const std::string& owner) {
  std::map<u16, std::string> programmes;
  for (const Bytes& entry : entriesIn(PAT, pat, owner)) programmes.emplace(entryNumber(entry), "");
  programmes.erase(kNoNetwork);
  for (const Bytes& entry : entriesIn(SDT_C, sdt, owner)) {
    if (const auto found = programmes.find(entryNumber(entry)); found != programmes.end())
      found->second = serviceName(entry);
  }
  if (const auto number = base::parseDecimal<u16>(choice); number && programmes.contains(*number))
    return *number;
  std::vector<u16> named;
  std::string all;
  for (const auto& [number, name] : programmes) {
    if (!name.empty() && fold(name) == fold(choice)) named.push_back(number);
    all += fmt::format("{}{}{}{}", all.empty() ? "" : ", ", number, name.empty() ? "" : " ", name);
  }
  if (named.size() == 1) return named[0];
  if (named.empty()) {
    throw Error(
        fmt::format("{} has no programme '{}': it has {}", owner, choice, all.empty() ? "none at all" : all));
  }
  throw Error(fmt::format("{} has {} programmes of the name '{}': choose by number, {}", owner, named.size(),
                          choice, fmt::join(named, " or ")));
}

ProgrammePlan planAdd(const ChannelState& output, const InputTables& source, u16 number,
                      const AddOptions& options) {
  return Adding(output, source, number, options).run();
}

ProgrammePlan planRemove(const ChannelState& output, u16 number) {
  return Removing(output, number).run();
}

std::vector<Programme> programmesOf(const ChannelState& output) {
  const ProgrammeDraft draft(output);
  std::vector<Programme> programmes;
  for (const Bytes& entry : draft.entries(PAT)) {
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
    for (const Bytes& service : draft.entries(SDT_C)) {
      if (entryNumber(service) == programme.number) programme.name = serviceName(service);
    }
    programmes.push_back(std::move(programme));
  }
  return programmes;
}

}  // namespace client
