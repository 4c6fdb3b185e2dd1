#include "client/programme.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <utility>

#include "client/chassis_services.h"

namespace client {
namespace {

constexpr std::chrono::milliseconds kPoll{100};

// Asks an input for a table until it is accepted; nothing when its patience ends before.
std::vector<Section> awaitSections(Link& link, const SourcePort& source, u16 pid, PsiType type,
                                   std::chrono::milliseconds patience,
                                   const std::function<bool(const std::vector<Section>&)>& accept) {
  for (auto waited = std::chrono::milliseconds(0);; waited += kPoll) {
    std::vector<Section> sections = sourceSections(link, source, pid, tableId(type));
    if (accept(sections)) return sections;
    if (waited >= patience) return {};
    link.wait(kPoll);
  }
}

class SourceReader {
 public:
  SourceReader(Link& link, const SourcePort& source, std::chrono::milliseconds patience)
      : link_(link), patience_(patience) {
    tables_.input = source;
  }

  std::pair<InputTables, u16> read(const std::string& choice) {
    tables_.pat = whole(PAT);
    if (tables_.pat.empty()) fail(tableName(PAT), "is the input there and its stream running?");
    tables_.sdt = whole(SDT_C);
    const u16 number = choose(choice);
    tables_.pmt =
        awaitSections(link_, tables_.input, pmtPidOf(tables_.pat, number).value(), PMT, patience_,
                      [&](const auto& sections) { return std::ranges::any_of(sections, isOf(number)); });
    if (tables_.pmt.empty()) {
      fail(fmt::format("PMT of programme {}", number), "the PAT names it, and nothing sends it");
    }
    if (isScrambled(number)) tables_.cat = whole(CAT);
    return {std::move(tables_), number};
  }

 private:
  static std::function<bool(const Section&)> isOf(u16 number) {
    return [number](const Section& s) { return s.extension() == number; };
  }

  std::vector<Section> whole(PsiType type) {
    return awaitSections(link_, tables_.input, tablePid(type).value(), type, patience_, isWhole);
  }

  // Without an SDT a number still identifies the programme.
  u16 choose(const std::string& choice) const {
    try {
      return chooseProgramme(tables_.pat, tables_.sdt, choice, inputName(tables_.input));
    } catch (const Error& e) {
      if (!tables_.sdt.empty()) throw;
      fail("SDT", fmt::format("its services have no names, so choose by number ({})", e.what()));
    }
  }

  bool isScrambled(u16 number) const {
    const auto pmt = std::ranges::find_if(tables_.pmt, isOf(number));
    return std::ranges::any_of(pidsOfPmt(*pmt),
                               [](const PidField& f) { return f.use == PidField::Use::kCa; });
  }

  [[noreturn]] void fail(const std::string& table, const std::string& hint) const {
    throw Error(fmt::format("the {} of {} did not come whole within {:.1f} s: {}", table,
                            inputName(tables_.input), std::chrono::duration<double>(patience_).count(),
                            hint));
  }

  Link& link_;
  std::chrono::milliseconds patience_;
  InputTables tables_;
};

ChannelState readOnce(Link& link, const Channel& channel) {
  return {.channel = channel, .psi = readPsiOnce(link, channel), .map = readMapOnce(link, channel)};
}

ProgrammeChange changeTo(const ChannelState& before, ProgrammePlan plan, const ChangeOptions& options) {
  ChannelChange change{.before = before, .intervals = plan.intervals, .options = options};
  if (plan.map != asKept(before.map.entries)) change.map = plan.map;
  if (plan.tables != before.psi.readable()) change.tables = plan.tables;
  change.check();
  return {.plan = std::move(plan), .change = std::move(change)};
}

// Before anything is read: a locked channel, a rescue file.
ChannelState readForChange(Link& link, const Channel& channel, const ChangeOptions& options) {
  ChannelState state = readOnce(link, channel);
  ChannelChange{.before = state, .tables = Tables{}, .map = std::vector<MapEntry>{}, .options = options}
      .check();
  return state;
}

}  // namespace

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
  const ProgrammeDraft draft(before);
  const u16 number = chooseProgramme(draft.sections(PAT), draft.sections(SDT_C), choice, ownerName(channel));
  return changeTo(before, planRemove(before, number), options);
}

}  // namespace client
