// psi_judge: does a card's output carry the tables of a source stream, whole, unaltered and on time?
// An independent judge for the end-to-end tests: it shares no code with the programs whose output it reads,
// decodes with libdvbpsi, and measures with its own eyes. Exit code 0: nothing wrong; 1: faults, each named;
// 2: wrong call.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "program.h"
#include "sections.h"
#include "tables.h"

namespace judge {
namespace {

constexpr double kPacketBits = 1504.0;
constexpr size_t kFaultsShown = 8;  // of each kind

enum Type : size_t { kPat, kPmt, kSdtC, kSdtO, kNitC, kNitO, kBat, kCat, kTypes };

struct TypeRow {
  const char* name;
  uint8_t tableId;
  int pid;  // -1: the PIDs that the programme association names
};
constexpr std::array<TypeRow, kTypes> kTypeRows = {{
    {"PAT", 0x00, 0x0000},
    {"PMT", 0x02, -1},
    {"SDT_C", 0x42, 0x0011},
    {"SDT_O", 0x46, 0x0011},
    {"NIT_C", 0x40, 0x0010},
    {"NIT_O", 0x41, 0x0010},
    {"BAT", 0x4A, 0x0011},
    {"CAT", 0x01, 0x0001},
}};

struct Options {
  std::string source;
  std::string out;
  std::string self;
  uint64_t rateNum = 0;
  uint64_t rateDen = 1;
  double auxHz = 1000;
  unsigned defaultInterval = 300;
  std::vector<std::string> intervalTexts;
  std::array<unsigned, kTypes> intervals{};
  double fromSeconds = 0;
  bool allowCut = false;
  bool everyPid = false;
  bool untimed = false;
  bool json = false;

  double ticks(double packets) const {
    return packets * kPacketBits * static_cast<double>(rateDen) / static_cast<double>(rateNum) * auxHz;
  }
};

// What is sent back to back once per repetition: a section, or all programme maps together.
struct Group {
  double start;  // ticks from the start of the file, of its first packet
  double last;   // of its last packet
  uint64_t firstPacket;
  unsigned packets;
  unsigned content;  // equal for equal groups
};

struct Wanted {
  std::array<std::set<unsigned>, kTypes> contents;  // sections by type
  std::array<unsigned, kTypes> packets{};           // of all sections of the type, each packed by itself
  std::map<std::string, std::string> tables;        // as libdvbpsi decodes them
  std::set<std::pair<uint16_t, uint16_t>> programmes;
  std::set<uint16_t> pmtPids;
};

struct Spacing {
  size_t sections = 0;
  size_t groups = 0;
  size_t held = 0;   // groups that another table on their PID held back
  double first = 0;  // tick of the first group
  double min = 0, mean = 0, max = 0;
};

std::optional<Type> typeOf(uint16_t pid, uint8_t tableId, const std::set<uint16_t>& pmtPids) {
  for (size_t type = 0; type < kTypes; ++type) {
    const TypeRow& row = kTypeRows[type];
    if (row.tableId == tableId && (row.pid < 0 ? pmtPids.contains(pid) : row.pid == pid))
      return static_cast<Type>(type);
  }
  return std::nullopt;
}

std::set<uint16_t> tablePids(const std::set<uint16_t>& pmtPids) {
  std::set<uint16_t> pids = pmtPids;
  for (const TypeRow& row : kTypeRows)
    if (row.pid >= 0) pids.insert(static_cast<uint16_t>(row.pid));
  return pids;
}

// The newest current section of each PID, table_id, extension and section number, and the tables they make
// up.
Wanted readSource(const Options& options, Contents& contents) {
  Wanted wanted;
  wanted.programmes = programmes(options.source);
  for (const auto& [pid, programme] : wanted.programmes) wanted.pmtPids.insert(pid);
  TableDecoder decoder(
      wanted.programmes,
      [&](const std::string& name, const std::string& content) { wanted.tables[name] = content; },
      [](const std::string&) {});
  ScanOptions scanOptions;
  scanOptions.sectionPids = tablePids(wanted.pmtPids);
  scanOptions.allowCut = true;
  scanOptions.onPacket = [&](const uint8_t* packet) { decoder.push(packet); };
  Faults sourceFaults;  // the source may be a damaged capture; what is whole in it counts
  std::map<std::tuple<uint16_t, uint8_t, uint16_t, uint8_t>, unsigned> newest;
  for (const Section& section : scan(options.source, scanOptions, contents, sourceFaults).sections) {
    const Bytes& bytes = contents.bytes(section.content);
    if (!typeOf(section.pid, bytes[0], wanted.pmtPids) || (bytes[5] & 1) == 0) continue;
    newest[{section.pid, bytes[0], big16(bytes, 3), bytes[6]}] = section.content;
  }
  for (const auto& [key, content] : newest) {
    const Type type = *typeOf(std::get<0>(key), std::get<1>(key), wanted.pmtPids);
    wanted.contents[type].insert(content);
    const size_t bytes = 1 + contents.bytes(content).size();  // with the pointer field
    wanted.packets[type] += static_cast<unsigned>((bytes + kPayloadSize - 1) / kPayloadSize);
  }
  return wanted;
}

// A table that is never repeated is not sent at all.
void dropSilentTables(const Options& options, Wanted& wanted) {
  for (size_t type = 0; type < kTypes; ++type) {
    if (options.intervals[type] != 0) continue;
    wanted.contents[type].clear();
    static const std::map<size_t, std::string> kNames = {
        {kPat, "PAT"},       {kPmt, "PMT"},       {kSdtC, "SDT 0x42"}, {kSdtO, "SDT 0x46"},
        {kNitC, "NIT 0x40"}, {kNitO, "NIT 0x41"}, {kBat, "BAT"},       {kCat, "CAT"}};
    const std::string& prefix = kNames.at(type);
    for (auto at = wanted.tables.begin(); at != wanted.tables.end();)
      at = at->first.compare(0, prefix.size(), prefix) == 0 ? wanted.tables.erase(at) : std::next(at);
  }
}

// libdvbpsi sticks the start of a new section to one that broke off and calls that a bad CRC: its word counts
// only where every section is whole.
void noteLibraryErrors(const Scan& scan, const std::vector<std::string>& errors, Faults& faults) {
  if (scan.cutSections > 0) return;
  for (const std::string& text : errors) faults.add("libdvbpsi", text);
}

// Judges one output stream against the source's tables.
class Judge {
 public:
  Judge(const Options& options, Contents& contents, Faults& faults)
      : options_(options), contents_(contents), faults_(faults), wanted_(readSource(options, contents)) {
    dropSilentTables(options_, wanted_);
  }

  bool sourceHasTables() const { return !wanted_.tables.empty(); }

  nlohmann::json run() {
    readOutput();
    judgeSections();
    for (size_t type = 0; type < kTypes; ++type)
      groups_[type] = type == kPmt ? programmeMapGroups() : sectionGroups(static_cast<Type>(type));
    nlohmann::json types;
    for (size_t type = 0; type < kTypes; ++type) {
      const Spacing s = judgeSpacing(static_cast<Type>(type));
      if (s.sections == 0) continue;
      judgeRotation(static_cast<Type>(type));
      types[kTypeRows[type].name] = {{"sections", s.sections},
                                     {"groups", s.groups},
                                     {"held", s.held},
                                     {"first_tick", s.first},
                                     {"interval_ticks", {{"min", s.min}, {"mean", s.mean}, {"max", s.max}}}};
    }
    nlohmann::json names = nlohmann::json::array();
    for (const auto& [name, content] : wanted_.tables) names.push_back(name);
    return {{"packets", scan_.packets},
            {"cut_sections", scan_.cutSections},
            {"table_packets", scan_.marks.size()},
            {"types", types},
            {"tables", names}};
  }

 private:
  void fault(const char* kind, const std::string& text) { faults_.add(kind, text); }

  void readOutput() {
    std::set<std::string> decoded;
    std::vector<std::string> errors;
    TableDecoder decoder(
        wanted_.programmes,
        [&](const std::string& name, const std::string& content) { compare(name, content, decoded); },
        [&](const std::string& text) { errors.push_back(text); });
    ScanOptions scanOptions;
    scanOptions.sectionPids = tablePids(wanted_.pmtPids);
    scanOptions.contentPids = wanted_.pmtPids;
    scanOptions.allowCut = options_.allowCut;
    scanOptions.fromPacket =
        static_cast<uint64_t>(std::ceil(options_.fromSeconds / options_.ticks(1) * options_.auxHz));
    scanOptions.onPacket = [&](const uint8_t* packet) { decoder.push(packet); };
    scan_ = scan(options_.out, scanOptions, contents_, faults_);
    noteLibraryErrors(scan_, errors, faults_);
    for (const auto& [name, content] : wanted_.tables)
      if (!decoded.contains(name)) fault("table", fmt::format("{} cannot be decoded from the output", name));
    for (const Mark& mark : scan_.marks)
      if (!scanOptions.sectionPids.contains(mark.pid))
        fault("stray", fmt::format("packet {} is of PID {:#x}, which carries no table of the source",
                                   mark.index, mark.pid));
  }

  void compare(const std::string& name, const std::string& content, std::set<std::string>& decoded) {
    const auto at = wanted_.tables.find(name);
    if (at == wanted_.tables.end())
      fault("table", fmt::format("{} is not in the source", name));
    else if (at->second != content)
      fault("table", fmt::format("{} differs: source {}, output {}", name, at->second, content));
    else
      decoded.insert(name);
  }

  std::string nameOf(const Section& section) const {
    const Bytes& b = contents_.bytes(section.content);
    if (b.size() < 8) return fmt::format("PID {:#x} table {:#x}", section.pid, b[0]);
    return fmt::format("PID {:#x} table {:#x} extension {} version {} section {}", section.pid, b[0],
                       big16(b, 3), b[5] >> 1 & 31, b[6]);
  }

  // Every section is one of the source's, and every section of the source is there.
  void judgeSections() {
    std::array<std::set<unsigned>, kTypes> seen;
    for (const Section& section : scan_.sections) {
      const auto type = typeOf(section.pid, contents_.bytes(section.content)[0], wanted_.pmtPids);
      if (!type || !wanted_.contents[*type].contains(section.content))
        fault("foreign", fmt::format("packet {}: section ({}) is none of the source's", section.firstPacket,
                                     nameOf(section)));
      else
        seen[*type].insert(section.content);
    }
    for (size_t type = 0; type < kTypes; ++type)
      for (const unsigned content : wanted_.contents[type])
        if (!seen[type].contains(content)) {
          const Bytes& b = contents_.bytes(content);
          fault("missing", fmt::format("{}: section {} of extension {} is not in the output",
                                       kTypeRows[type].name, b[6], big16(b, 3)));
        }
  }

  double ticksOf(uint64_t packet) const { return options_.ticks(static_cast<double>(packet)); }

  std::vector<Group> sectionGroups(Type type) const {
    std::vector<Group> groups;
    for (const Section& s : scan_.sections)
      if (typeOf(s.pid, contents_.bytes(s.content)[0], wanted_.pmtPids) == type)
        groups.push_back(
            {ticksOf(s.firstPacket), ticksOf(s.lastPacket), s.firstPacket, s.packets, s.content});
    return groups;
  }

  // All programme maps are one group; where the stream is joined late, it starts after the longest silence.
  std::vector<Group> programmeMapGroups() {
    std::vector<Mark> marks;
    for (const Mark& mark : scan_.marks)
      if (wanted_.pmtPids.contains(mark.pid)) marks.push_back(mark);
    const size_t size = wanted_.packets[kPmt];
    std::vector<Group> groups;
    if (size == 0 || marks.size() < size) return groups;
    size_t first = 0;
    if (options_.fromSeconds > 0)
      for (size_t i = 1, longest = 0; i <= size && i < marks.size(); ++i)
        if (const size_t gap = marks[i].index - marks[i - 1].index; gap > longest) {
          longest = gap;
          first = i % size;  // a silence behind as many as there are: it was joined between two groups
        }
    for (; first + size <= marks.size(); first += size) {
      Bytes order;
      for (size_t i = first; i < first + size; ++i)
        for (unsigned shift = 0; shift < 32; shift += 8)
          order.push_back(static_cast<uint8_t>(marks[i].content >> shift));
      const uint64_t start = marks[first].index;
      groups.push_back({ticksOf(start), ticksOf(marks[first + size - 1].index), start,
                        static_cast<unsigned>(size), contents_.number(order)});
    }
    return groups;
  }

  // Packets that stand in the queue before this one: those sent within the tick before it, in ticks.
  double queueTicks(uint64_t packet) const {
    const auto byIndex = [](const Mark& mark, uint64_t index) { return mark.index < index; };
    const auto perTick = static_cast<uint64_t>(std::ceil(1.0 / options_.ticks(1)));
    const auto to = std::lower_bound(scan_.marks.begin(), scan_.marks.end(), packet, byIndex);
    const auto from =
        std::lower_bound(scan_.marks.begin(), to, packet > perTick ? packet - perTick : 0, byIndex);
    return options_.ticks(static_cast<double>(to - from));
  }

  // Ticks between `from` and `to` in which sections of other types were on this type's PID.
  double heldTicks(Type type, double from, double to) const {
    if (kTypeRows[type].pid < 0) return 0;
    std::vector<std::pair<double, double>> holds;
    for (size_t other = 0; other < kTypes; ++other) {
      if (other == type || kTypeRows[other].pid != kTypeRows[type].pid) continue;
      const auto& groups = groups_[other];
      auto at = std::lower_bound(groups.begin(), groups.end(), to,
                                 [](const Group& group, double value) { return group.start < value; });
      while (at != groups.begin() && std::prev(at)->last + 1 > from) {
        --at;
        holds.emplace_back(std::max(at->start, from), std::min(at->last + 1, to));
      }
    }
    std::sort(holds.begin(), holds.end());
    double total = 0, end = from;
    for (const auto& [start, stop] : holds) {
      total += std::max(0.0, stop - std::max(start, end));
      end = std::max(end, stop);
    }
    return total;
  }

  // Groups start every max(interval, packets of the group) ticks. The due time is carried on from group to
  // group, so that a drift shows, and is taken anew only where another table held the PID.
  Spacing judgeSpacing(Type type) {
    const auto& groups = groups_[type];
    Spacing spacing;
    spacing.sections = wanted_.contents[type].size();
    spacing.groups = groups.size();
    if (groups.empty()) return spacing;
    spacing.first = groups[0].start;
    const unsigned longest =
        std::max_element(groups.begin(), groups.end(), [](const Group& a, const Group& b) {
          return a.packets < b.packets;
        })->packets;
    double due = groups[0].start;
    double slack = 1 + queueTicks(groups[0].firstPacket);
    for (size_t i = 1; i <= groups.size(); ++i) {
      due += std::max(options_.intervals[type], groups[i - 1].packets);
      const bool ended =
          i == groups.size();  // then no group may have been due before, and had time to be whole
      const double start = ended ? ticksOf(scan_.packets) : groups[i].start;
      const double allowed = std::max(slack, ended ? 1.0 + longest : 1 + queueTicks(groups[i].firstPacket));
      const double held = heldTicks(type, due - 1, start);
      const bool late = !options_.untimed && start > due + held + allowed;
      const bool early = !options_.untimed && !ended && start < due - allowed;
      if (late || early)
        fault(late ? "late" : "early",
              fmt::format("{}: group {} {} at tick {:.2f}, due at {:.2f}, held back {:.2f}, tolerance {:.2f}",
                          kTypeRows[type].name, i, ended ? "has not come by the end" : "starts", start, due,
                          held, allowed));
      if (ended) break;
      if (held > 0) ++spacing.held;
      if (held > 0 || late || early) {
        due = start;
        slack = 1 + queueTicks(groups[i].firstPacket);
      }
      judgePace(type, groups[i]);
      measure(spacing, groups[i].start - groups[i - 1].start);
    }
    if (groups.size() > 1)
      spacing.mean = (groups.back().start - groups.front().start) / static_cast<double>(groups.size() - 1);
    return spacing;
  }

  static void measure(Spacing& spacing, double interval) {
    spacing.min = spacing.min > 0 ? std::min(spacing.min, interval) : interval;
    spacing.max = std::max(spacing.max, interval);
  }

  // Within a group one packet goes out a tick.
  void judgePace(Type type, const Group& group) {
    const double length = group.last - group.start;
    if (!options_.untimed && std::abs(length - (group.packets - 1)) > 1 + queueTicks(group.firstPacket))
      fault("pace", fmt::format("{}: {} packets from tick {:.2f} on take {:.2f} ticks", kTypeRows[type].name,
                                group.packets, group.start, length));
  }

  // A section of a table of S sections comes every S groups; all programme maps come each time in one order.
  void judgeRotation(Type type) {
    const auto& groups = groups_[type];
    const size_t round = type == kPmt ? 1 : wanted_.contents[type].size();
    for (size_t i = round; i < groups.size(); ++i)
      if (groups[i].content != groups[i - round].content) {
        fault("rotation", fmt::format("{}: group {} at tick {:.2f} is not the one that came {} groups before",
                                      kTypeRows[type].name, i, groups[i].start, round));
        return;
      }
  }

  const Options& options_;
  Contents& contents_;
  Faults& faults_;
  Wanted wanted_;
  Scan scan_;
  std::array<std::vector<Group>, kTypes> groups_;
};

// Judges a stream by itself.
nlohmann::json judgeSelf(const Options& options, Contents& contents, Faults& faults) {
  const auto named = programmes(options.self);
  std::vector<std::string> errors;
  TableDecoder decoder(
      named, [](const std::string&, const std::string&) {},
      [&](const std::string& text) { errors.push_back(text); });
  ScanOptions scanOptions;
  std::set<uint16_t> pmtPids;
  for (const auto& [pid, programme] : named) pmtPids.insert(pid);
  scanOptions.sectionPids = tablePids(pmtPids);
  scanOptions.everyPid = options.everyPid;
  scanOptions.allowCut = options.allowCut;
  scanOptions.onPacket = [&](const uint8_t* packet) { decoder.push(packet); };
  const Scan seen = scan(options.self, scanOptions, contents, faults);
  noteLibraryErrors(seen, errors, faults);
  return {{"packets", seen.packets},
          {"cut_sections", seen.cutSections},
          {"sections", seen.sections.size()},
          {"table_packets", seen.marks.size()}};
}

std::string takeInterval(const std::string& text, Options& options) {
  const size_t equals = text.find('=');
  for (size_t type = 0; equals != std::string::npos && type < kTypes; ++type)
    if (text.compare(0, equals, kTypeRows[type].name) == 0) {
      options.intervals[type] = static_cast<unsigned>(std::stoul(text.substr(equals + 1)));
      return "";
    }
  return fmt::format("--interval {}: want TABLE=TICKS with TABLE of PAT PMT SDT_C SDT_O NIT_C NIT_O BAT CAT",
                     text);
}

// Empty if the call makes sense, else what is wrong with it.
std::string checkCall(Options& options) {
  options.intervals.fill(options.defaultInterval);
  for (const std::string& text : options.intervalTexts)
    if (std::string wrong = takeInterval(text, options); !wrong.empty()) return wrong;
  if (!options.self.empty())
    return options.source.empty() && options.out.empty() ? "" : "--self stands alone";
  if (options.source.empty() || options.out.empty()) return "give --source and --out, or --self";
  if (options.rateNum == 0 || options.rateDen == 0 || options.auxHz <= 0)
    return "--rate-num, --rate-den and --aux-hz must be above 0";
  return "";
}

void printFaults(const Faults& faults) {
  for (const auto& [kind, texts] : faults.byKind()) {
    for (size_t i = 0; i < std::min(texts.size(), kFaultsShown); ++i)
      fmt::print("fault: {}: {}\n", kind, texts[i]);
    if (texts.size() > kFaultsShown) fmt::print("fault: {}: {} more\n", kind, texts.size() - kFaultsShown);
  }
}

int run(Options& options) {
  if (const std::string wrong = checkCall(options); !wrong.empty()) {
    fmt::print(stderr, "psi_judge: {}\n", wrong);
    return kWrongCall;
  }
  Contents contents;
  Faults faults;
  nlohmann::json summary;
  if (options.self.empty()) {
    Judge judge(options, contents, faults);
    if (!judge.sourceHasTables()) {
      fmt::print(stderr, "psi_judge: {} carries no tables to look for\n", options.source);
      return kWrongCall;
    }
    summary = judge.run();
  } else {
    summary = judgeSelf(options, contents, faults);
  }
  if (options.json) {
    summary["faults"] = faults.byKind();
    fmt::print("{}\n", summary.dump(1));
  } else {
    printFaults(faults);
    fmt::print("{}\n", summary.dump());
  }
  return faults.none() ? kOk : kFaulty;
}

}  // namespace
}  // namespace judge

int main(int argc, char** argv) {
  judge::Options options;
  CLI::App app("Judges the PSI of a transport stream. Exit code 0: nothing wrong, 1: faults, 2: wrong call.");
  app.add_option("--source", options.source, "capture whose tables OUT must carry");
  app.add_option("--out", options.out, "stream to judge");
  app.add_option("--self", options.self,
                 "stream to judge without a source: sync, continuity, CRC, sections whole");
  app.add_option("--rate-num", options.rateNum, "bit rate of OUT in bit/s, numerator");
  app.add_option("--rate-den", options.rateDen, "its denominator");
  app.add_option("--aux-hz", options.auxHz, "ticks a second");
  app.add_option("--default-interval", options.defaultInterval, "ticks between groups of a table");
  app.add_option("--interval", options.intervalTexts,
                 "TABLE=TICKS, where it differs; 0: the table must not be sent");
  app.add_option("--from", options.fromSeconds, "ignore what lies before, in seconds of OUT");
  app.add_flag("--allow-cut", options.allowCut, "a section may break off where another one starts");
  app.add_flag("--every-pid", options.everyPid,
               "with --self: every PID but the null packets' carries sections");
  app.add_flag("--untimed", options.untimed, "do not judge when groups start");
  app.add_flag("--json", options.json, "print the summary and all faults as JSON");
  return judge::runProgram("psi_judge", app, argc, argv, [&] { return judge::run(options); });
}
