#include "commands/pid_map_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

namespace commands {
namespace {

using protocol::MapEntry;

Json sourceAndPid(const MapEntry& e) {
  return {{"src_slot", e.sourceSlot + 1},
          {"src_port", e.sourcePort + 1},
          {"src_pid", e.sourcePid},
          {"dst_pid", e.pid}};
}

Json entryOf(const MapEntry& e) {
  Json entry = sourceAndPid(e);
  entry["src_programme"] = e.sourceProgramme;
  entry["dst_programme"] = e.programme;
  entry["type"] = e.type;
  return entry;
}

std::size_t repeatedIn(const std::vector<MapEntry>& entries) {
  std::set<u32> sources;
  for (const MapEntry& e : entries) sources.insert(protocol::sourceKey(e));
  return entries.size() - sources.size();
}

std::string lineOf(const Json& e) {
  std::string line = fmt::format("  {}.{}  {:#06x} -> {:#06x}", e["src_slot"].get<u32>(),
                                 e["src_port"].get<u32>(), e["src_pid"].get<u16>(), e["dst_pid"].get<u16>());
  if (e.contains("type")) {
    line += fmt::format("  programme {} -> {}, type {}", e["src_programme"].get<u16>(),
                        e["dst_programme"].get<u16>(), e["type"].get<u16>());
  }
  return line + "\n";
}

std::string linesOf(const char* title, const Json& entries) {
  std::string text =
      fmt::format("{}: {} {}\n", title, entries.size(), entries.size() == 1 ? "entry" : "entries");
  for (const Json& entry : entries) text += lineOf(entry);
  return text;
}

}  // namespace

Json pidMapReport(const client::PidMap& map, const protocol::Channel& channel,
                  const std::optional<std::vector<chassis::RouterWords>>& router) {
  Json report = {{"channel", protocol::channelName(channel)},
                 {"locked", map.locked},
                 {"announced_only", std::ranges::count_if(map.entries, protocol::isBlank)},
                 {"record", Json::array()},
                 {"router", nullptr},
                 {"repeated", nullptr},
                 {"router_holds_record", nullptr}};
  for (const MapEntry& e : map.entries) {
    if (!protocol::isBlank(e)) report["record"].push_back(entryOf(e));
  }
  if (!router) return report;
  const auto routed = protocol::entriesOf(*router);
  report["router"] = Json::array();
  for (const MapEntry& e : routed) report["router"].push_back(sourceAndPid(e));
  report["repeated"] = repeatedIn(routed);
  report["router_holds_record"] = protocol::holds(*router, map.entries);
  return report;
}

std::string pidMapText(const Json& report) {
  const std::string channel = report["channel"];
  std::string text = fmt::format("Channel {}\n", channel);
  if (report["locked"].get<bool>()) {
    text += fmt::format(
        "LOCKED: a load is under way, or broke off; on the air is what the router holds. When nobody is at "
        "work any more, 'qamctl pidmap release {}' ends the lock\n",
        channel);
  }
  if (const auto blank = report["announced_only"].get<std::size_t>(); blank > 0) {
    text += fmt::format("{} more entries of the record were announced and never came\n", blank);
  }
  text += linesOf("record", report["record"]);
  const Json& router = report["router"];
  if (router.is_null()) return text + "router: the chassis does not tell\n";
  if (report["router_holds_record"].get<bool>()) {
    text += "router: holds the record\n";
  } else {
    text += linesOf("router, ANOTHER MAP than the record", router);
  }
  if (const auto repeated = report["repeated"].get<std::size_t>(); repeated > 0) {
    text += fmt::format("{} of the router's positions repeat a source: it takes the first\n", repeated);
  }
  return text;
}

}  // namespace commands
