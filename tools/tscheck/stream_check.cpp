// A transport stream by itself: counts, bit rate, repetition of the tables, and its clocks.
#include <fmt/format.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <tuple>

#include "checks.h"

namespace tscheck {
namespace {

constexpr double kLongestPcrInterval_ms = 100;  // ISO/IEC 13818-1, 2.7.2
constexpr double kRateTolerance = 1e-6;

std::string hex(uint16_t pid) {
  return fmt::format("{:#x}", pid);
}

Json checkPcrs(const Options& options, const Rate& rate, uint16_t number, const Pid& pid, Faults& faults) {
  const std::vector<Pcr>& pcrs = pid.pcrs;
  const std::vector<int64_t> ticks = continued(pcrs);
  Spread absolute, interval;
  for (size_t i = 0; i < pcrs.size(); ++i) {
    if (i > 0) interval.add(rate.units(pcrs[i].packet - pcrs[i - 1].packet));
    absolute.add(aheadOfDeparture(rate, pcrs[i], ticks[i]));
  }
  const double byPcr = static_cast<double>((pcrs.back().packet - pcrs[0].packet) * kPacketBits) * kPcrHz /
                       static_cast<double>(ticks.back() - ticks[0]);
  const double error = absolute.ns(rate);
  if (options.constantRate && error > options.tolerance_ns)
    faults.add("pcr", fmt::format("PID {:#x}: PCRs are up to {:.1f} ns off", number, error));
  if (options.constantRate && std::abs(byPcr / rate.bitsPerSecond() - 1) > kRateTolerance)
    faults.add("rate", fmt::format("PID {:#x}: by its PCRs the stream has {:.1f} bit/s, not {:.1f}", number,
                                   byPcr, rate.bitsPerSecond()));
  if (options.limits && rate.ms(*interval.high) > kLongestPcrInterval_ms)
    faults.add("pcr_interval", fmt::format("PID {:#x}: {:.1f} ms between two PCRs, {:.0f} are allowed",
                                           number, rate.ms(*interval.high), kLongestPcrInterval_ms));
  return {{"count", pcrs.size()},
          {"interval_ms", {{"min", rate.ms(*interval.low)}, {"max", rate.ms(*interval.high)}}},
          {"bit_rate", byPcr},
          {"absolute_error_ns", error}};
}

// How often a table comes: the times from each section to the next one of the same number.
struct Repetition {
  std::set<unsigned> sections;
  uint64_t lastPacket = 0;  // of the last section's start
  Intervals gaps_s;
};

Json checkRepetition(const Options& options, const Rate& rate, const Scan& scan, const Contents& contents,
                     const std::set<uint16_t>& pmtPids, Faults& faults) {
  std::map<std::pair<uint16_t, Type>, Repetition> tables;
  std::map<std::tuple<uint16_t, Type, uint16_t, uint8_t>, uint64_t>
      lastPacket;  // by extension and section number
  for (const Section& section : scan.sections) {
    const Bytes& bytes = contents.bytes(section.content);
    const auto type = typeOf(section.pid, bytes[0], pmtPids);
    if (!type || bytes.size() < 8) continue;
    Repetition& table = tables[{section.pid, *type}];
    table.sections.insert(section.content);
    table.lastPacket = section.firstPacket;
    const auto [last, isFirst] =
        lastPacket.try_emplace({section.pid, *type, big16(bytes, 3), bytes[6]}, section.firstPacket);
    if (isFirst) continue;
    table.gaps_s.add(rate.seconds(static_cast<double>(section.firstPacket - last->second)));
    last->second = section.firstPacket;
  }
  Json all = Json::array();
  for (const auto& [key, table] : tables) {
    const TypeRow& row = kTypeRows[key.second];
    Json entry = {{"table", row.name}, {"pid", hex(key.first)}, {"sections", table.sections.size()}};
    if (rate.known() && table.gaps_s.count > 0) entry["interval_ms"] = table.gaps_s.json(1e3);
    all.push_back(entry);
    if (!options.limits || !rate.known() || row.limit_s == 0) continue;
    const double silence_s = rate.seconds(static_cast<double>(scan.packets - table.lastPacket));
    const double longest_s = std::max(table.gaps_s.max, silence_s);
    if (longest_s > row.limit_s)
      faults.add("repetition",
                 fmt::format("{} on PID {:#x}: {:.3f} s {}, {} s are allowed", row.name, key.first, longest_s,
                             silence_s > table.gaps_s.max ? "without it at the end"
                                                          : "from a section to its repetition",
                             row.limit_s));
  }
  return all;
}

}  // namespace

std::set<uint16_t> tablePids(const std::set<uint16_t>& pmtPids) {
  std::set<uint16_t> pids = pmtPids;
  for (const TypeRow& row : kTypeRows)
    if (row.pid >= 0) pids.insert(static_cast<uint16_t>(row.pid));
  return pids;
}

std::optional<Type> typeOf(uint16_t pid, uint8_t tableId, const std::set<uint16_t>& pmtPids) {
  for (size_t type = 0; type < kTypes; ++type) {
    const TypeRow& row = kTypeRows[type];
    if (row.tableId == tableId && (row.pid < 0 ? pmtPids.contains(pid) : row.pid == pid))
      return static_cast<Type>(type);
  }
  return std::nullopt;
}

Rate rateByPcr(const Scan& scan) {
  const Pid* best = nullptr;
  for (const auto& [number, pid] : scan.pids)
    if (pid.pcrs.size() > 1 && (best == nullptr || pid.pcrs.size() > best->pcrs.size())) best = &pid;
  if (best == nullptr) return {};
  const int64_t ticks = continued(best->pcrs).back() - best->pcrs[0].ticks;
  if (ticks <= 0) return {};
  return {static_cast<int64_t>(best->pcrs.back().packet - best->pcrs[0].packet) * kPacketBits * kPcrHz,
          ticks};
}

Json checkStream(const Options& options, const Rate& rate, const Scan& scan, const Contents& contents,
                 const std::set<uint16_t>& pmtPids, Faults& faults) {
  Json jumps = Json::object(), packets = Json::object(), pcrs = Json::object();
  uint64_t used = 0;
  for (const auto& [number, pid] : scan.pids) {
    packets[hex(number)] = pid.packets;
    if (number != kNullPid) used += pid.packets;
    if (pid.jumps > 0) jumps[hex(number)] = pid.jumps;
    if (rate.known() && pid.pcrs.size() > 1)
      pcrs[hex(number)] = checkPcrs(options, rate, number, pid, faults);
  }
  Json summary = {{"packets", scan.packets}, {"packets_not_null", used}};
  if (rate.known()) {
    summary["bit_rate"] = rate.bitsPerSecond();
    summary["seconds"] = rate.seconds(static_cast<double>(scan.packets));
  }
  summary["sync_errors"] = scan.syncErrors;
  summary["transport_errors"] = scan.damaged;
  summary["continuity_errors"] = jumps;
  summary["sections"] = scan.sections.size();
  summary["cut_sections"] = scan.cutSections;
  summary["pid_packets"] = packets;
  summary["repetition"] = checkRepetition(options, rate, scan, contents, pmtPids, faults);
  summary["pcr"] = pcrs;
  return summary;
}

}  // namespace tscheck
