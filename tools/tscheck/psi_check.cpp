// The tables of a source: that the file carries them whole, unaltered and on time, as a card's carousel sends
// them.
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <tuple>

#include "checks.h"

namespace tscheck {
namespace {

constexpr size_t kLongHeader = 8;  // of a section up to its last_section_number

// What is sent back to back once per repetition: a section, or all programme maps together.
struct Group {
  double start;  // ticks from the start of the file, of its first packet
  double last;   // of its last packet
  uint64_t firstPacket;
  unsigned packets;
  unsigned content;  // equal for equal groups
};

// Judges the carousel of one file by the packets and sections that were found.
class Carousel {
 public:
  Carousel(const Options& options, const PsiSource& source, const Scan& scan, Contents& contents,
           Faults& faults)
      : options_(options), source_(source), scan_(scan), contents_(contents), faults_(faults) {
    for (size_t type = 0; type < kTypes; ++type)
      groups_[type] = type == kPmt ? programmeMapGroups() : sectionGroups(static_cast<Type>(type));
  }

  Json run() {
    judgeSections();
    Json types;
    for (size_t n = 0; n < kTypes; ++n) {
      const auto type = static_cast<Type>(n);
      Json entry = judgeSpacing(type);
      if (source_.sections[type].empty()) continue;
      judgeRotation(type);
      types[std::string(kTypeRows[type].name)] = std::move(entry);
    }
    return types;
  }

 private:
  void fault(const char* kind, const std::string& text) { faults_.add(kind, text); }

  std::string nameOf(const Section& section) const {
    const Bytes& b = contents_.bytes(section.content);
    if (b.size() < 8) return fmt::format("PID {:#x} table {:#x}", section.pid, b[0]);
    return fmt::format("PID {:#x} table {:#x} extension {} version {} section {}", section.pid, b[0],
                       big16(b, 3), b[5] >> 1 & 31, b[6]);
  }

  // Every section is in the source, and every section of the source is present.
  void judgeSections() {
    std::array<std::set<unsigned>, kTypes> seen;
    for (const Section& section : scan_.sections) {
      const auto type = typeOf(section.pid, contents_.bytes(section.content)[0], source_.pmtPids);
      if (!type || !source_.sections[*type].contains(section.content))
        fault("foreign", fmt::format("packet {}: section ({}) is none of the source's", section.firstPacket,
                                     nameOf(section)));
      else
        seen[*type].insert(section.content);
    }
    for (size_t type = 0; type < kTypes; ++type)
      for (const unsigned content : source_.sections[type])
        if (!seen[type].contains(content)) {
          const Bytes& b = contents_.bytes(content);
          fault("missing", fmt::format("{}: section {} of extension {} is not in the output",
                                       kTypeRows[type].name, b[6], big16(b, 3)));
        }
  }

  // The time of that many packets.
  double ticksOf(uint64_t packets) const {
    return options_.rate.seconds(static_cast<double>(packets)) * options_.auxHz;
  }

  std::vector<Group> sectionGroups(Type type) const {
    std::vector<Group> groups;
    for (const Section& s : scan_.sections)
      if (typeOf(s.pid, contents_.bytes(s.content)[0], source_.pmtPids) == type)
        groups.push_back(
            {ticksOf(s.firstPacket), ticksOf(s.lastPacket), s.firstPacket, s.packets, s.content});
    return groups;
  }

  // All programme maps are one group; in a stream joined late, it starts after the longest silence.
  std::vector<Group> programmeMapGroups() {
    std::vector<Mark> marks;
    for (const Mark& mark : scan_.marks)
      if (source_.pmtPids.contains(mark.pid)) marks.push_back(mark);
    const size_t size = source_.packets[kPmt];
    std::vector<Group> groups;
    if (size == 0 || marks.size() < size) return groups;
    size_t first = 0;
    if (options_.from_s > 0)
      for (size_t i = 1, longest = 0; i <= size && i < marks.size(); ++i)
        if (const size_t gap = marks[i].index - marks[i - 1].index; gap > longest) {
          longest = gap;
          first = i % size;  // a silence after a full set: it was joined between two groups
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

  // Packets in the queue before this one: those sent within the tick before it, in ticks.
  double queueTicks(uint64_t packet) const {
    const auto byIndex = [](const Mark& mark, uint64_t index) { return mark.index < index; };
    const auto perTick = static_cast<uint64_t>(std::ceil(1.0 / ticksOf(1)));
    const auto to = std::lower_bound(scan_.marks.begin(), scan_.marks.end(), packet, byIndex);
    const auto from =
        std::lower_bound(scan_.marks.begin(), to, packet > perTick ? packet - perTick : 0, byIndex);
    return ticksOf(static_cast<uint64_t>(to - from));
  }

  // Ticks between `from` and `to` in which sections of other types were on this type's PID.
  double ticksHeld(Type type, double from, double to) const {
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

  Json judgeSpacing(Type type) {
    const auto& groups = groups_[type];
    size_t held = 0;
    Intervals intervals;
    if (!groups.empty()) held = judgeTimes(type, intervals);
    return {{"sections", source_.sections[type].size()},
            {"groups", groups.size()},
            {"held", held},
            {"first_tick", groups.empty() ? 0.0 : groups[0].start},
            {"interval_ticks", intervals.json()}};
  }

  // Groups start every max(interval, packets of the group) ticks. The due time continues from group to group,
  // so that a drift is detected, and is reset only where another table used the PID. Returns the number of
  // groups that another table on their PID delayed.
  size_t judgeTimes(Type type, Intervals& intervals) {
    const auto& groups = groups_[type];
    const unsigned longest = std::ranges::max_element(groups, {}, &Group::packets)->packets;
    size_t held = 0;
    double due = groups[0].start;
    double slack = 1 + queueTicks(groups[0].firstPacket);
    for (size_t i = 1; i <= groups.size(); ++i) {
      due += std::max(options_.intervals[type], groups[i - 1].packets);
      const bool ended =
          i == groups.size();  // then no group may have been due before with time to be complete
      const double start = ended ? ticksOf(scan_.packets) : groups[i].start;
      const double allowed = std::max(slack, ended ? 1.0 + longest : 1 + queueTicks(groups[i].firstPacket));
      const double heldTicks = ticksHeld(type, due - 1, start);
      const bool late = !options_.untimed && start > due + heldTicks + allowed;
      const bool early = !options_.untimed && !ended && start < due - allowed;
      if (late || early)
        fault(late ? "late" : "early",
              fmt::format("{}: group {} {} at tick {:.2f}, due at {:.2f}, held back {:.2f}, tolerance {:.2f}",
                          kTypeRows[type].name, i, ended ? "has not come by the end" : "starts", start, due,
                          heldTicks, allowed));
      if (ended) break;
      if (heldTicks > 0) ++held;
      if (heldTicks > 0 || late || early) {
        due = start;
        slack = 1 + queueTicks(groups[i].firstPacket);
      }
      judgePace(type, groups[i]);
      intervals.add(groups[i].start - groups[i - 1].start);
    }
    return held;
  }

  // Within a group one packet is sent per tick.
  void judgePace(Type type, const Group& group) {
    const double length = group.last - group.start;
    if (!options_.untimed && std::abs(length - (group.packets - 1)) > 1 + queueTicks(group.firstPacket))
      fault("pace", fmt::format("{}: {} packets from tick {:.2f} on take {:.2f} ticks", kTypeRows[type].name,
                                group.packets, group.start, length));
  }

  // A section of a table of S sections is sent every S groups; all programme maps are sent in one order.
  void judgeRotation(Type type) {
    const auto& groups = groups_[type];
    const size_t round = type == kPmt ? 1 : source_.sections[type].size();
    for (size_t i = round; i < groups.size(); ++i)
      if (groups[i].content != groups[i - round].content) {
        fault("rotation", fmt::format("{}: group {} at tick {:.2f} is not the one that came {} groups before",
                                      kTypeRows[type].name, i, groups[i].start, round));
        return;
      }
  }

  const Options& options_;
  const PsiSource& source_;
  const Scan& scan_;
  Contents& contents_;
  Faults& faults_;
  std::array<std::vector<Group>, kTypes> groups_;
};

}  // namespace

// The newest current section of each PID, table_id, extension and section number, and the tables they make
// up. A table whose interval is 0 is not sent at all.
PsiSource readPsiSource(const Options& options, Contents& contents) {
  PsiSource source{.programmes = programmes(options.psi)};
  for (const auto& [pid, programme] : source.programmes) source.pmtPids.insert(pid);
  TableDecoder decoder(source.programmes);
  ScanOptions scanOptions;
  scanOptions.sectionPids = tablePids(source.pmtPids);
  scanOptions.allowCut = true;
  scanOptions.onPacket = [&](const Packet& packet) { decoder.push(packet); };
  Faults ofSource;  // the capture may be damaged; its complete sections count
  std::map<std::tuple<uint16_t, uint8_t, uint16_t, uint8_t>, unsigned> newest;
  for (const Section& section : scan(options.psi, scanOptions, contents, ofSource).sections) {
    const Bytes& bytes = contents.bytes(section.content);
    const bool isTables = bytes.size() >= kLongHeader && typeOf(section.pid, bytes[0], source.pmtPids);
    if (!isTables || (bytes[5] & 1) == 0) continue;
    newest[{section.pid, bytes[0], big16(bytes, 3), bytes[6]}] = section.content;
  }
  for (const auto& [name, versions] : decoder.tables) source.tables[name] = versions.last;
  if (source.tables.empty())
    throw std::runtime_error(fmt::format("{} carries no tables to look for", options.psi));
  for (const auto& [key, content] : newest) {
    const Type type = *typeOf(std::get<0>(key), std::get<1>(key), source.pmtPids);
    const size_t bytes = 1 + contents.bytes(content).size();  // including the pointer field
    source.packets[type] += static_cast<unsigned>((bytes + kPayloadSize - 1) / kPayloadSize);
    if (options.intervals[type] != 0) source.sections[type].insert(content);
  }
  for (size_t type = 0; type < kTypes; ++type)
    if (options.intervals[type] == 0)
      std::erase_if(source.tables,
                    [&](const auto& table) { return table.first.starts_with(kTypeRows[type].decoded); });
  return source;
}

Json checkPsi(const Options& options, const PsiSource& source, const Scan& scan, const TableDecoder& decoder,
              Contents& contents, Faults& faults) {
  for (const auto& [name, versions] : decoder.tables) {
    const auto wanted = source.tables.find(name);
    if (wanted == source.tables.end()) faults.add("table", fmt::format("{} is not in the source", name));
    for (const std::string& content : versions.all)
      if (wanted != source.tables.end() && wanted->second != content)
        faults.add("table", fmt::format("{} differs: source {}, file {}", name, wanted->second, content));
  }
  Json names = Json::array();
  for (const auto& [name, content] : source.tables) {
    names.push_back(name);
    const auto found = decoder.tables.find(name);
    if (found == decoder.tables.end() || !found->second.all.contains(content))
      faults.add("table", fmt::format("{} cannot be decoded from the file", name));
  }
  const std::set<uint16_t> known = tablePids(source.pmtPids);
  for (const Mark& mark : scan.marks)
    if (!known.contains(mark.pid))
      faults.add("stray", fmt::format("packet {} is of PID {:#x}, which carries no table of the source",
                                      mark.index, mark.pid));
  Json types = Carousel(options, source, scan, contents, faults).run();
  return {{"types", types}, {"tables", names}};
}

}  // namespace tscheck
