// Adds a programme of an input to an output: planAdd of programme.h.
#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "client/programme.h"
#include "platform/wire.h"

namespace client {
namespace {

// `count` PIDs for a programme, the first one for its PMT if that needs one.
std::vector<u16> takePids(const std::set<u16>& used, std::optional<u16> base, std::size_t count,
                          bool firstIsPmt, const std::string& owner) {
  std::vector<u16> pids;
  // The free PIDs from there on; without gaps none after the first used one. True if there are enough.
  const auto take = [&](u16 first, bool mayHaveGaps) {
    pids.clear();
    for (u16 pid = first; pid < kNullPid && pids.size() < count; ++pid) {
      const bool isFree =
          !isReservedPid(pid) && !used.contains(pid) && !(pids.empty() && firstIsPmt && marksFreePlace(pid));
      if (isFree)
        pids.push_back(pid);
      else if (!mayHaveGaps)
        break;
    }
    return pids.size() == count;
  };
  for (u16 first = kFirstProgrammePid; !base && first < kNullPid; ++first) {
    if (take(first, false)) return pids;  // a block without gaps is easier to read in a list
  }
  const u16 first = base.value_or(kFirstProgrammePid);
  if (!take(first, true)) fail("{} has no {} free PIDs from {:#06x} on", owner, count, first);
  return pids;
}

class Adding : ProgrammeDraft {
 public:
  Adding(const ChannelState& output, const InputTables& source, u16 sourceNumber, const AddOptions& options)
      : ProgrammeDraft(output),
        source_(source),
        sourceNumber_(sourceNumber),
        options_(options),
        from_(inputName(source.input)),
        pmt_(sourcePmt()) {}

  ProgrammePlan run() {
    old_ = oldPmt();
    number = old_ ? old_->extension() : freeNumber();
    for (const u16 pid : options_.pass) pass(pid);
    mapPids();
    writePat();
    writePmt();
    writeCat();
    writeSdt();
    return finish();
  }

 private:
  template <typename... Args>
  void note(fmt::format_string<Args...> text, Args&&... args) {
    notes.push_back(fmt::format(text, std::forward<Args>(args)...));
  }

  Section sourcePmt() const {
    std::vector<Section> own;
    std::ranges::copy_if(source_.pmt, std::back_inserter(own),
                         [&](const Section& s) { return s.extension() == sourceNumber_; });
    if (own.size() != 1 || own[0].lastNumber() > 0)
      fail("the PMT of programme {} on {} has several sections; a PMT has one", sourceNumber_, from_);
    return own[0];
  }

  // The PMT of the same programme, added before.
  std::optional<Section> oldPmt() {
    const auto pat = entries(PAT);
    for (const MapEntry& e : map) {
      if (!isFrom(e, source_.input) || e.sourceProgramme != sourceNumber_ || e.programme == 0) continue;
      const auto entry = findEntry(pat, e.programme);
      auto known = entry ? pmt(e.programme, entryPid(*entry)) : std::nullopt;
      if (known) return known;
    }
    // All its entries may belong to another programme, or may have lost their numbers in a release.
    std::set<u16> pids;
    for (const u16 pid : pidSetOf(pmt_)) pids.insert(mapped(pid));
    const auto same = std::ranges::find_if(pmts(), [&](const Section& known) {
      return known.extension() == sourceNumber_ && pidSetOf(known) == pids;
    });
    return same == pmts().end() ? std::nullopt : std::optional(*same);
  }

  u16 freeNumber() {
    std::set<u16> taken{kNoNetwork};
    for (const PsiType type : {PAT, SDT_C}) {
      for (const Bytes& entry : entries(type)) taken.insert(entryNumber(entry));
    }
    u16 free = sourceNumber_;
    while (taken.contains(free)) ++free;  // from 65535 to 0, which is used
    if (free != sourceNumber_)
      note("programme number {} is taken on {}: it is {} there", sourceNumber_, owner, free);
    return free;
  }

  void pass(u16 pid) {
    const bool isShared = pid == kEitPid || pid == kTimePid;
    if (!isShared && isReservedPid(pid)) {
      fail(
          "PID {:#06x} cannot be passed: it is for tables of the card, or for null packets; 0x12 (EIT), 0x14 "
          "(TDT and TOT) and those from 0x20 on can",
          pid);
    }
    if (const u16 there = mapped(pid); there != kNullPid) {
      if (there == pid) return;
      fail("PID {:#06x} of {} is in {} already, as PID {:#06x}", pid, from_, owner, there);
    }
    if (usedPids().contains(pid))
      fail("PID {:#06x} of {} cannot be passed: {} has that PID from elsewhere", pid, from_, owner);
    // EIT and time belong to all programmes of an input; any other PID to its own programme.
    map.push_back(mapEntry(pid, pid, 0));
    if (isShared) map.back().sourceProgramme = map.back().programme = 0;
  }

  MapEntry mapEntry(u16 sourcePid, u16 pid, u16 type) const {
    return {.sourceSlot = source_.input.slot,
            .sourcePort = source_.input.port,
            .sourcePid = sourcePid,
            .sourceProgramme = sourceNumber_,
            .pid = pid,
            .programme = number,
            .type = type};
  }

  // PIDs of the entitlements for the programme's CA systems.
  std::vector<Bytes> catEntries() {
    const std::set<u16> systems = caSystemsOf(pmt_);
    if (systems.empty()) return {};
    std::vector<Bytes> entries = entriesIn(CAT, source_.cat, from_);
    std::erase_if(entries, [&](const Bytes& entry) {
      const auto field = pidOfCatEntry(entry);
      return !field || !systems.contains(field->caSystem) || field->pid(entry) == kNullPid;
    });
    if (entries.empty())
      note("the programme has CA descriptors, and {} no CAT for them: entitlements do not come with it",
           from_);
    else
      note("the CAT carries the entitlements of the programme's CA systems");
    return entries;
  }

  void mapPids() {
    std::vector<std::pair<u16, u16>> wanted;  // PID on the input, type
    const auto want = [&](u16 pid, u16 type) {
      if (pid < kFirstFreePid)
        fail("programme {} of {} names PID {:#06x}, which belongs to tables", sourceNumber_, from_, pid);
      if (mapped(pid) == kNullPid) wanted.emplace_back(pid, type);
    };
    for (const PidField& field : fieldsByPid(pmt_)) want(field.pid(pmt_.bytes), field.streamType);
    entitlements_ = catEntries();
    for (const Bytes& entry : entitlements_) {
      const u16 pid = pidOfCatEntry(entry)->pid(entry);
      if (std::ranges::none_of(wanted, [&](const auto& w) { return w.first == pid; })) want(pid, 0);
    }
    const bool needsPmt = !old_;
    std::vector<u16> pids =
        takePids(usedPids(), options_.base, wanted.size() + (needsPmt ? 1 : 0), needsPmt, owner);
    pmtPid = needsPmt ? pids.front() : old_->pid;
    if (needsPmt) pids.erase(pids.begin());
    for (std::size_t i = 0; i < wanted.size(); ++i)
      map.push_back(mapEntry(wanted[i].first, pids[i], wanted[i].second));
  }

  u16 mapped(u16 sourcePid) const { return routed(source_.input, sourcePid); }

  u16 transportStreamId() {
    for (const PsiType type : {PAT, SDT_C}) {
      if (const EntryTable* known = table(type)) return known->extension();
    }
    if (options_.transportStreamId) return *options_.transportStreamId;
    note("{} has no transport_stream_id yet: it gets 1 (--ts-id sets another)", owner);
    return 1;
  }

  void writePat() {
    if (old_) return;
    const u16 id = transportStreamId();
    if (options_.transportStreamId && *options_.transportStreamId != id)
      note("{} keeps its transport_stream_id {}", owner, id);
    EntryTable* pat = table(PAT);
    (pat == nullptr ? addTable(PAT, id) : *pat).add(patEntry(number, pmtPid));
  }

  void writePmt() {
    Section pmt = pmt_;
    pmt.pid = pmtPid;
    for (const PidField& field : pidsOfPmt(pmt_)) field.set(pmt.bytes, mapped(field.pid(pmt_.bytes)));
    wire::put16(&pmt.bytes[3], number);
    setVersion(pmt, old_ ? old_->version() : u8{0});
    if (old_ && pmt == *old_) return note("its PMT is on the air already");
    if (old_) setVersion(pmt, nextVersion(old_->version()));
    putPmt(number, pmtPid, pmt);
    if (!old_) return;
    dropUnused([left = pidSetOf(*old_)](const MapEntry& e) { return left.contains(e.pid); });
  }

  void writeCat() {
    if (entitlements_.empty()) return;
    EntryTable* there = table(CAT);
    EntryTable& cat = there == nullptr ? addTable(CAT, 0xFFFF) : *there;
    for (Bytes entry : entitlements_) {
      const PidField field = *pidOfCatEntry(entry);
      field.set(entry, mapped(field.pid(entry)));
      const auto have = cat.entries();
      if (std::ranges::find(have, entry) != have.end()) continue;
      const bool isSecond = std::ranges::any_of(have, [&](const Bytes& e) {
        const auto f = pidOfCatEntry(e);
        return f && f->caSystem == field.caSystem;
      });
      if (isSecond)
        note("the CAT of {} has CA system {:#06x} twice: receivers may take either", owner, field.caSystem);
      cat.add(std::move(entry));
    }
  }

  std::optional<Bytes> sourceService(u16 theirNumber) const {
    return findEntry(entriesIn(SDT_C, source_.sdt, from_), theirNumber);
  }

  void writeSdt() {
    auto service = sourceService(sourceNumber_);
    if (!service)
      return note("{} has no SDT entry for the programme: it has no name on {} either", from_, owner);
    name = serviceName(*service);
    const EntryTable theirs(SDT_C, source_.sdt, from_);
    const u16 network = wire::get16(theirs.head().data());
    EntryTable* sdt = table(SDT_C);
    if (sdt == nullptr) {
      sdt = &addTable(SDT_C, transportStreamId(), theirs.head());
      note("{} has no SDT yet: it gets the original_network_id {} of {}", owner, network, from_);
    }
    const auto before = sdt->entries();
    wire::put16(service->data(), number);
    const bool passesEit = mapped(kEitPid) == kEitPid;
    if (!passesEit) setEitFlags(*service, 0);
    if (std::ranges::find(before, *service) == before.end()) {
      sdt->remove([&](const Bytes& entry) { return entryNumber(entry) == number; });
      sdt->add(*service);
    }
    if (!passesEit) return;
    followEit(*sdt);
    if (theirs.extension() != sdt->extension() || theirs.head() != sdt->head() || number != sourceNumber_) {
      note(
          "the EIT names the programme as {}, stream {}, network {}, which is not what it is on {}: "
          "receivers may not find its events",
          sourceNumber_, theirs.extension(), network, owner);
    }
  }

  // Programmes of the input that were added before its EIT.
  void followEit(EntryTable& sdt) {
    sdt.change([&](Bytes& entry) {
      const u16 theirNumber = sourceNumber(entryNumber(entry), source_.input);
      const auto theirs = theirNumber == 0 ? std::nullopt : sourceService(theirNumber);
      if (theirs) setEitFlags(entry, eitFlags(*theirs));
    });
  }

  const InputTables& source_;
  u16 sourceNumber_;
  const AddOptions& options_;
  std::string from_;
  Section pmt_;
  std::optional<Section> old_;       // its current PMT on the output
  std::vector<Bytes> entitlements_;  // CAT entries as on the input
};

}  // namespace

ProgrammePlan planAdd(const ChannelState& output, const InputTables& source, u16 number,
                      const AddOptions& options) {
  return Adding(output, source, number, options).run();
}

}  // namespace client
