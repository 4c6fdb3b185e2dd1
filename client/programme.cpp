#include "client/programme.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <functional>
#include <locale>
#include <map>
#include <utility>

#include "base/numbers.h"
#include "client/chassis_services.h"

namespace client {
namespace {

// The number of the programme that the text names: a number in the PAT, else a service's name in the SDT.
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
  std::vector<std::string> all;
  for (const auto& [number, name] : programmes) {
    if (!name.empty() && boost::algorithm::iequals(name, choice, std::locale::classic()))
      named.push_back(number);
    all.push_back(fmt::format("{}{}{}", number, name.empty() ? "" : " ", name));
  }
  if (named.size() == 1) return named[0];
  if (named.empty()) {
    fail("{} has no programme '{}': it has {}", owner, choice,
         all.empty() ? "none at all" : fmt::format("{}", fmt::join(all, ", ")));
  }
  fail("{} has {} programmes of the name '{}': choose by number, {}", owner, named.size(), choice,
       fmt::join(named, " or "));
}

// ---- The tables of an input

class SourceReader {
 public:
  SourceReader(Link& link, const SourcePort& source, std::chrono::milliseconds patience)
      : link_(link),
        patience_(patience),
        tables_{.input = source, .pat = {}, .sdt = {}, .cat = {}, .pmt = {}} {}

  std::pair<InputTables, u16> read(const std::string& choice) {
    tables_.pat = whole(PAT);
    if (tables_.pat.empty()) failOn(tableName(PAT), "is the input there and its stream running?");
    tables_.sdt = whole(SDT_C);
    const u16 number = choose(choice);
    const auto isOwn = [&](const Section& s) { return s.extension() == number; };
    const auto entry = findEntry(entriesIn(PAT, tables_.pat, inputName(tables_.input)), number);
    tables_.pmt = await(entryPid(entry.value()), PMT,
                        [&](const auto& sections) { return std::ranges::any_of(sections, isOwn); });
    if (tables_.pmt.empty())
      failOn(fmt::format("PMT of programme {}", number), "the PAT names it, but it is not sent");
    if (!caSystemsOf(*std::ranges::find_if(tables_.pmt, isOwn)).empty()) tables_.cat = whole(CAT);
    return {std::move(tables_), number};
  }

 private:
  // Asks for a table until it is accepted; returns nothing if that is not so within the patience.
  std::vector<Section> await(u16 pid, PsiType type,
                             const std::function<bool(const std::vector<Section>&)>& accept) {
    constexpr std::chrono::milliseconds kPoll{100};
    for (auto waited = std::chrono::milliseconds(0);; waited += kPoll) {
      std::vector<Section> sections = sourceSections(link_, tables_.input, pid, tableId(type));
      if (accept(sections)) return sections;
      if (waited >= patience_) return {};
      link_.wait(kPoll);
    }
  }

  std::vector<Section> whole(PsiType type) { return await(tablePid(type).value(), type, isWhole); }

  // Without an SDT a number still identifies the programme.
  u16 choose(const std::string& choice) const {
    try {
      return chooseProgramme(tables_.pat, tables_.sdt, choice, inputName(tables_.input));
    } catch (const Error& e) {
      if (!tables_.sdt.empty()) throw;
      failOn("SDT", fmt::format("its services have no names, so choose by number ({})", e.what()));
    }
  }

  [[noreturn]] void failOn(const std::string& table, const std::string& hint) const {
    fail("the {} of {} did not arrive completely within {:.1f} s: {}", table, inputName(tables_.input),
         std::chrono::duration<double>(patience_).count(), hint);
  }

  Link& link_;
  std::chrono::milliseconds patience_;
  InputTables tables_;
};

// ---- A programme goes

class Removing : ProgrammeDraft {
 public:
  Removing(const ChannelState& output, u16 ofOutput) : ProgrammeDraft(output) { number = ofOutput; }

  ProgrammePlan run() {
    const auto inPat = findEntry(entries(PAT), number);
    if (!inPat) fail("{} has no programme {}", owner, number);
    pmtPid = entryPid(*inPat);
    if (const auto own = pmt(number, pmtPid)) pids_ = pidSetOf(*own);
    const auto isOfProgramme = [&](const Bytes& entry) { return entryNumber(entry) == number; };
    table(PAT)->remove(isOfProgramme);
    putPmt(number, pmtPid, std::nullopt);
    const auto service = findEntry(entries(SDT_C), number);
    if (service) table(SDT_C)->remove(isOfProgramme);

    std::set<SourcePort> inputs;
    for (const MapEntry& entry : map) {
      if (isOwn(entry)) inputs.insert({.slot = entry.sourceSlot, .port = entry.sourcePort});
    }
    for (const SourcePort& input : inputs) removeEntitlements(input);
    dropUnused([&](const MapEntry& e) { return isOwn(e); });
    for (const SourcePort& input : inputs) removePassed(input);
    if (service) name = serviceName(*service);
    return finish();
  }

 private:
  bool isOwn(const MapEntry& entry) const { return entry.programme == number || pids_.contains(entry.pid); }

  // CA systems of the remaining programmes from the input, with one of the programmes each.
  std::map<u16, u16> systemsFrom(const SourcePort& input) const {
    const std::set<u16> staying = programmesFrom(input);
    std::map<u16, u16> systems;
    for (const Section& pmt : pmts()) {
      if (!staying.contains(pmt.extension())) continue;
      for (const u16 system : caSystemsOf(pmt)) systems.emplace(system, pmt.extension());
    }
    return systems;
  }

  // The programme's CAT entries are removed unless another programme from the input has the same CA system.
  void removeEntitlements(const SourcePort& input) {
    EntryTable* cat = table(CAT);
    if (cat == nullptr) return;
    const auto systems = systemsFrom(input);
    cat->remove([&](const Bytes& entry) {
      const auto field = pidOfCatEntry(entry);
      if (!field) return false;
      const auto own = std::ranges::find_if(map, [&](const MapEntry& e) {
        return e.pid == field->pid(entry) && e.programme == number && isFrom(e, input);
      });
      if (own == map.end()) return false;
      const auto heir = systems.find(field->caSystem);
      if (heir == systems.end()) return true;
      own->programme = heir->second;
      own->sourceProgramme = sourceNumber(heir->second, input);
      return false;
    });
  }

  // EIT and time stay while a programme from the input is left.
  void removePassed(const SourcePort& input) {
    if (!programmesFrom(input).empty()) return;
    std::erase_if(map, [&](const MapEntry& e) {
      return isFrom(e, input) && e.programme == 0 && e.sourcePid == e.pid &&
             (e.pid == kEitPid || e.pid == kTimePid);
    });
  }

  std::set<u16> pids_;  // PIDs in its PMT
};

// ---- Changes

ProgrammeChange changeTo(const ChannelState& before, ProgrammePlan plan, const ChangeOptions& options) {
  ChannelChange change{.before = before, .intervals = plan.intervals, .options = options};
  if (plan.map != asKept(before.map.entries)) change.map = plan.map;
  if (plan.tables != before.psi.readable()) change.tables = plan.tables;
  change.check();
  return {.plan = std::move(plan), .change = std::move(change)};
}

// A locked channel and a rescue file are refused before anything is planned.
ChannelState readForChange(Link& link, const Channel& channel, const ChangeOptions& options) {
  ChannelState state{
      .channel = channel, .psi = readPsiOnce(link, channel), .map = readMapOnce(link, channel)};
  ChannelChange{.before = state, .tables = Tables{}, .map = std::vector<MapEntry>{}, .options = options}
      .check();
  return state;
}

}  // namespace

std::vector<Programme> programmesOf(const ChannelState& output) {
  ProgrammeDraft draft(output);
  std::vector<Programme> programmes;
  for (const Bytes& entry : draft.entries(PAT)) {
    if (entryNumber(entry) == kNoNetwork) continue;
    Programme& programme =
        programmes.emplace_back(Programme{.number = entryNumber(entry), .pmtPid = entryPid(entry)});
    if (const auto service = findEntry(draft.entries(SDT_C), programme.number))
      programme.name = serviceName(*service);
    const auto pmt = draft.pmt(programme.number, programme.pmtPid);
    if (!pmt) continue;
    programme.hasPmt = true;
    programme.pmt = *pmt;
    programme.pcrPid = pidsOfPmt(*pmt).front().pid(pmt->bytes);
    for (const PidField& field : fieldsByPid(*pmt)) {
      const u16 pid = field.pid(pmt->bytes);
      const auto source = std::ranges::find(draft.map, pid, &MapEntry::pid);
      programme.pids.push_back({.pid = pid,
                                .field = field,
                                .source = source == draft.map.end() ? std::nullopt : std::optional(*source)});
    }
  }
  return programmes;
}

ChannelState readOutput(Link& link, const Channel& channel) {
  ChannelState state{.channel = channel, .psi = readPsi(link, channel), .map = readMap(link, channel)};
  ChannelChange{.before = state}.check();
  return state;
}

ProgrammeChange planAddProgramme(Link& link, const Channel& channel, const SourcePort& source,
                                 const std::string& choice, const AddOptions& add,
                                 const ChangeOptions& options, std::chrono::milliseconds patience) {
  const auto [tables, number] = SourceReader(link, source, patience).read(choice);
  const ChannelState before = readForChange(link, channel, options);
  return changeTo(before, planAdd(before, tables, number, add), options);
}

ProgrammeChange planRemoveProgramme(Link& link, const Channel& channel, const std::string& choice,
                                    const ChangeOptions& options) {
  const ChannelState before = readForChange(link, channel, options);
  const Tables tables = before.psi.readable();
  const u16 number =
      chooseProgramme(sectionsOf(tables, PAT), sectionsOf(tables, SDT_C), choice, ownerName(channel));
  return changeTo(before, Removing(before, number).run(), options);
}

}  // namespace client
