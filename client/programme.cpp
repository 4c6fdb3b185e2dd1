#include "client/programme.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <system_error>

#include "base/files.h"
#include "client/channel_variables.h"
#include "client/psi_read_back.h"
#include "client/psi_upload.h"

namespace client {
namespace {

constexpr u32 kUsualInterval_ticks = 300;  // for a table that was stopped and is now on the air
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

Intervals intervalsOf(const ReadBack& tables, const std::set<PsiType>& fresh) {
  Intervals intervals;
  for (const PsiType type : kAllTables) {
    const u32 ticks = tables.tables[type].interval_ticks;
    intervals[type] = ticks == 0 && fresh.contains(type) ? kUsualInterval_ticks : ticks;
  }
  return intervals;
}

// Leads a channel from what it carries to a plan, or back.
class Change {
 public:
  Change(Link& link, const OutputState& before, const ProgrammePlan& plan, const ProgrammeOptions& options)
      : link_(link),
        before_(before),
        plan_(plan),
        options_(options),
        oldTables_(ChannelTables(before.tables, ownerName(before.channel)).plan()),
        oldMap_(asKept(before.map)) {}

  // New entries are added to the map first; old ones are removed after no table names them any more.
  void run() {
    const std::vector<MapEntry> both = withNew();
    const bool tablesChange = oldTables_.chunks != plan_.tables.chunks;
    if (both != oldMap_) {
      try {
        replaceMap(link_, before_.channel, both, options_.map);
      } catch (const Error& e) {
        if (e.kind() != Error::Kind::kUnseen) throw;
        failUnseen(e, "those that were there");
      }
    }
    if (tablesChange) {
      keepTables();
      loadTables(both);
    }
    if (plan_.map != both) {
      try {
        replaceMap(link_, before_.channel, plan_.map, options_.map);
      } catch (const Error& e) {
        if (e.kind() != Error::Kind::kUnseen) undo(e.what(), tablesChange, both);
        failUnseen(e, "the new ones");  // the old tables would name PIDs that the new map does not have
      }
    }
    dropFile();
  }

 private:
  std::vector<MapEntry> withNew() const {
    std::vector<MapEntry> both = oldMap_;
    for (const MapEntry& entry : plan_.map) {
      const bool known =
          std::ranges::any_of(oldMap_, [&](const MapEntry& e) { return sourceKey(e) == sourceKey(entry); });
      if (!known) both.push_back(entry);
    }
    return asKept(both);
  }

  [[noreturn]] void failUnseen(const Error& e, const char* tables) {
    dropFile();
    throw Error(fmt::format("{}\nThe tables of {} are {}", e.what(), ownerName(before_.channel), tables));
  }

  void loadTables(const std::vector<MapEntry>& map) {
    const auto intervals = intervalsOf(before_.tables, plan_.fresh);
    try {
      upload(link_, before_.channel, plan_.tables, intervals);
    } catch (const Error& e) {
      undo(e.what(), e.kind() == Error::Kind::kFailed, map);
    }
  }

  // The two parts are independent: if one cannot be undone, the other still is.
  [[noreturn]] void undo(const std::string& cause, bool tables, const std::vector<MapEntry>& map) {
    std::string text = cause;
    const auto attempt = [&](const char* what, const std::function<void()>& step, const std::string& then) {
      try {
        step();
        text += fmt::format("\nThe {} of {} was put back as it was.", what, ownerName(before_.channel));
        return true;
      } catch (const std::runtime_error& e) {
        text += fmt::format("\nThe {} of {} could not be put back: {}{}", what, ownerName(before_.channel),
                            e.what(), then);
        return false;
      }
    };
    bool whole = true;
    if (tables) {
      whole = attempt(
          "PSI",
          [&] {
            upload(link_, before_.channel, oldTables_, intervalsOf(before_.tables, {}),
                   {.force = true, .progress = {}});
          },
          recoveryHint());
    }
    if (whole) dropFile();
    if (map != oldMap_) {
      attempt(
          "PID map", [&] { replaceMap(link_, before_.channel, oldMap_, options_.map); }, "");
    }
    throw Error(text);
  }

  std::string recoveryHint() const {
    if (!kept_) return "";
    return fmt::format("\nIts tables stand in {}: 'qamctl psi load {} {} --force' puts them back",
                       options_.tablesFile.string(), channelName(before_.channel),
                       options_.tablesFile.string());
  }

  void keepTables() {
    if (options_.tablesFile.empty() || oldTables_.packets == 0) return;
    const auto& file = options_.tablesFile;
    try {
      base::replaceFile(file, fmt::format("{}.{}.part", file.string(), ::getpid()),
                        transportStream(before_.tables));
    } catch (const std::system_error& e) {
      undo(fmt::format("the tables of {} cannot be kept in {}, so they are not changed: {}",
                       ownerName(before_.channel), file.string(), e.what()),
           false, withNew());
    }
    kept_ = true;
  }

  void dropFile() {
    std::error_code ignored;  // an extra copy does no harm
    if (kept_) std::filesystem::remove(options_.tablesFile, ignored);
    kept_ = false;
  }

  Link& link_;
  const OutputState& before_;
  const ProgrammePlan& plan_;
  const ProgrammeOptions& options_;
  UploadPlan oldTables_;
  std::vector<MapEntry> oldMap_;
  bool kept_ = false;
};

void refuseLeftFile(const ProgrammeOptions& options, const Channel& channel) {
  std::error_code ignored;
  if (options.tablesFile.empty() || !std::filesystem::exists(options.tablesFile, ignored)) return;
  const std::string file = options.tablesFile.string();
  throw Error(
      fmt::format("{} holds tables of {} that could not be put back once: 'qamctl psi load {} {} --force' "
                  "does; then, or when they are not wanted any more, remove the file",
                  file, ownerName(channel), channelName(channel), file));
}

}  // namespace

OutputState readOutput(Link& link, const Channel& channel) {
  OutputState state{.channel = channel, .tables = readBack(link, channel), .map = {}};
  if (state.tables.locked) {
    throw Error(fmt::format(
        "the tables of {0} are locked: another client is loading them, or broke off. When none is "
        "at work any more, 'qamctl psi load {1} FILE --force' loads them anew, 'qamctl psi clear "
        "{1} --force' leaves none",
        ownerName(channel), channelName(channel)));
  }
  PidMap map = readMap(link, channel);
  if (map.locked) {
    throw Error(fmt::format(
        "the PID map of {} is locked: another client is loading it, or broke off. When none is at "
        "work any more, 'qamctl pidmap release {}' ends that",
        ownerName(channel), channelName(channel)));
  }
  state.map = std::move(map.entries);
  return state;
}

ProgrammePlan addProgramme(Link& link, const Channel& channel, const SourcePort& source,
                           const std::string& choice, const ProgrammeOptions& options) {
  refuseLeftFile(options, channel);
  const auto [tables, number] = SourceReader(link, source, options.patience).read(choice);
  const OutputState before = readOutput(link, channel);
  ProgrammePlan plan = planAdd(before, tables, number, options.add);
  Change(link, before, plan, options).run();
  return plan;
}

ProgrammePlan removeProgramme(Link& link, const Channel& channel, const std::string& choice,
                              const ProgrammeOptions& options) {
  refuseLeftFile(options, channel);
  const OutputState before = readOutput(link, channel);
  const ChannelTables tables(before.tables, ownerName(channel));
  const u16 number =
      chooseProgramme(tables.sections(PAT), tables.sections(SDT_C), choice, ownerName(channel));
  ProgrammePlan plan = planRemove(before, number);
  Change(link, before, plan, options).run();
  return plan;
}

}  // namespace client
