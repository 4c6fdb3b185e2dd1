#include "commands/stream_counts.h"

#include <fmt/format.h>

#include <algorithm>

#include "commands/psi_report.h"

namespace commands {
namespace {

constexpr std::size_t kLane = 64;    // characters
constexpr std::size_t kStored = 64;  // groups of a table that a chassis keeps

Json groupReport(const protocol::GroupStart& group) {
  return {{"number", group.number},
          {"tick", group.tick},
          {"interval_ticks", group.interval > 0 ? Json(group.interval) : Json()},
          {"due_ticks", group.due},
          {"held_ticks", group.held},
          {"late_ticks", group.late()}};
}

// What has happened in each part of the time, the newest on the right: a group, one that another table has
// held, one that is late. Blank where older groups are not stored.
std::string laneOf(const Json& table, u64 from, u64 now) {
  constexpr std::string_view kRising = ".|hL";
  std::string lane(kLane, kRising[0]);
  const Json& groups = table["groups"];
  if (groups.size() >= kStored) {
    const u64 oldest = std::clamp(groups.front()["tick"].get<u64>(), from, now);
    lane.replace(0, (oldest - from) * kLane / (now - from), (oldest - from) * kLane / (now - from), ' ');
  }
  for (const Json& group : groups) {
    const auto tick = group["tick"].get<u64>();
    if (tick <= from || tick > now) continue;
    char& place = lane[(tick - from - 1) * kLane / (now - from)];
    const char mark = group["late_ticks"] > 0 ? 'L' : group["held_ticks"] > 0 ? 'h' : '|';
    if (kRising.find(mark) > kRising.find(place) || place == ' ') place = mark;
  }
  return lane;
}

std::string lastInterval(const Json& groups) {
  if (groups.empty() || groups.back()["interval_ticks"].is_null()) return "-";
  return fmt::to_string(groups.back()["interval_ticks"].get<u32>());
}

std::string verdictOf(const Json& table) {
  if (table["overdue_ticks"] > 0) return fmt::format("overdue by {}", table["overdue_ticks"].get<u32>());
  u32 late = 0;
  for (const Json& group : table["groups"]) late = std::max(late, group["late_ticks"].get<u32>());
  if (late > 0) return fmt::format("late by up to {}", late);
  if (table["set_ticks"] == 0) return "stopped";
  return table["groups"].empty() ? "nothing sent" : "on time";
}

std::string useText(const Json& use) {
  std::string text = use["use"] == "stream" ? use.value("kind", "stream") : use["use"].get<std::string>();
  if (use.contains("language")) text += fmt::format(" ({})", oneLine(use["language"]));
  if (!use.contains("service")) return text;
  const std::string name = use.value("name", "");
  return fmt::format("{}{}: {}", use["service"].get<u32>(), name.empty() ? "" : fmt::format(" '{}'", name),
                     text);
}

std::string usesText(const Json& uses) {
  std::string text;
  for (const Json& use : uses) text += (text.empty() ? "" : "; ") + useText(use);
  return text;
}

std::string rateText(const Json& pid, const char* key) {
  return pid[key].is_null() ? "-" : fmt::to_string(pid[key].get<u32>());
}

}  // namespace

Json ticksReport(const protocol::GroupStarts& starts, const protocol::Channel& channel, double auxHz,
                 double seconds) {
  const auto window = static_cast<u64>(seconds * auxHz);
  Json tables = Json::array();
  for (const PsiType type : mpeg::kAllTables) {
    Json groups = Json::array();
    for (const protocol::GroupStart& group : starts.groups) {
      if (group.table == type && group.tick + window > starts.now) groups.push_back(groupReport(group));
    }
    tables.push_back({{"table", mpeg::tableName(type)},
                      {"set_ticks", starts.tables[type].interval},
                      {"overdue_ticks", starts.tables[type].overdue},
                      {"groups", std::move(groups)}});
  }
  return {{"channel", protocol::channelName(channel)},
          {"now_tick", starts.now},
          {"aux_hz", auxHz},
          {"next_number", starts.next},
          {"tables", std::move(tables)}};
}

std::string ticksText(const Json& report, double seconds) {
  const u64 now = report["now_tick"];
  const auto window = static_cast<u64>(seconds * report["aux_hz"].get<double>());
  constexpr auto kRow = "{:<6} {:>6} {:>6}  {:<{}}  {}\n";
  const std::string title = fmt::format("the last {:g} s: | group, h held, L late", seconds);
  std::string text = fmt::format(kRow, "TABLE", "SET", "LAST", title, kLane, "VERDICT");
  for (const Json& table : report["tables"]) {
    text += fmt::format(kRow, table["table"].get<std::string>(), table["set_ticks"].get<u32>(),
                        lastInterval(table["groups"]), laneOf(table, now - std::min(now, window), now), kLane,
                        verdictOf(table));
  }
  return text +
         filled("Intervals in ticks of the auxiliary clock, {aux_hz} a second; now is tick {now_tick}.\n",
                report);
}

// ---- PIDs

PidUses::PidUses(const std::vector<mpeg::Section>& sections) {
  std::map<u32, std::string> names;
  for (const PsiType type : mpeg::kAllTables) {
    const auto pid = mpeg::tablePid(type);
    if (!pid) continue;
    Json& uses = uses_[*pid];
    uses = Json::array(
        {{{"use", uses.empty() ? mpeg::tableName(type)
                               : uses[0]["use"].get<std::string>() + ", " + mpeg::tableName(type)}}});
  }
  uses_[mpeg::kEitPid] = Json::array({{{"use", "EIT"}}});
  uses_[mpeg::kTimePid] = Json::array({{{"use", "TDT, TOT"}}});
  uses_[kNullPid] = Json::array({{{"use", "null packets"}}});
  std::vector<std::pair<PsiType, Json>> contents;
  for (const mpeg::Section& section : sections) {
    const auto type = mpeg::tableOfId(section.tableId());
    Json content = type ? decodeSection(section) : Json();
    if (!content.is_null()) contents.emplace_back(*type, std::move(content));
  }
  for (const auto& [type, content] : contents) {
    if (type != SDT_C) continue;
    for (const Json& service : content["services"]) names[service["service_id"]] = service["name"];
  }
  const auto add = [&](const Json& pid, Json use, const Json& service) {
    if (pid == kNullPid) return;
    use["service"] = service;
    if (const auto name = names.find(service); name != names.end()) use["name"] = name->second;
    Json& uses = uses_[pid];
    if (std::ranges::find(uses, use) == uses.end()) uses.push_back(std::move(use));
  };
  for (const auto& [type, content] : contents) {
    if (type == PAT) {
      for (const Json& programme : content["programmes"])
        add(programme["pid"], {{"use", "PMT"}}, programme["number"]);
    } else if (type == CAT) {
      for (const Json& system : content["ca_systems"])
        uses_[system["pid"]].push_back({{"use", "EMM"}, {"ca_system", system["system_id"]}});
    } else if (type == PMT) {
      const Json& service = content["programme"];
      for (const Json& stream : content["streams"]) {
        Json use = {{"use", "stream"}, {"kind", stream["kind"]}};
        if (stream.contains("language")) use["language"] = stream["language"];
        add(stream["pid"], std::move(use), service);
      }
      add(content["pcr_pid"], {{"use", "PCR"}}, service);
      for (const Json& system : content["ca_systems"])
        add(system["pid"], {{"use", "ECM"}, {"ca_system", system["system_id"]}}, service);
    }
  }
}

Json PidUses::of(u16 pid) const {
  const auto found = uses_.find(pid);
  return found == uses_.end() ? Json::array() : found->second;
}

Json pidsReport(const protocol::PidCounts& counts, const std::string& place, const char* kind,
                const std::optional<PidUses>& uses) {
  Json pids = Json::array();
  for (const protocol::PidCount& count : counts.counts) {
    const auto rate = [&count](u32 protocol::PidCount::Rates::*which) {
      return count.rates ? Json((*count.rates).*which) : Json();
    };
    pids.push_back({{"pid", count.pid},
                    {"packets", count.packets},
                    {"bit_rate", rate(&protocol::PidCount::Rates::now)},
                    {"lowest", rate(&protocol::PidCount::Rates::lowest)},
                    {"highest", rate(&protocol::PidCount::Rates::highest)},
                    {"continuity_errors", count.continuityErrors},
                    {"pcr", count.hasPcr},
                    {"scrambled", count.isScrambled},
                    {"uses", uses ? uses->of(count.pid) : Json()}});
  }
  return {{"place", place}, {"kind", kind}, {"counted_ms", counts.counted_ms}, {"pids", std::move(pids)}};
}

std::string pidsText(const Json& report) {
  constexpr auto kRow = "{:<6} {:>11} {:>11} {:>11} {:>11} {:>9} {:<4} {:<9} {}\n";
  std::string text = fmt::format(kRow, "PID", "packets", "rate now", "lowest", "highest", "CC errors", "PCR",
                                 "scrambled", "used by");
  for (const Json& pid : report["pids"]) {
    text += fmt::format(kRow, filled("{pid:#06x}", pid), pid["packets"].get<u64>(), rateText(pid, "bit_rate"),
                        rateText(pid, "lowest"), rateText(pid, "highest"),
                        pid["continuity_errors"].get<u32>(), pid["pcr"] == true ? "PCR" : "",
                        pid["scrambled"] == true ? "scrambled" : "", usesText(pid["uses"]));
  }
  return text + fmt::format("{} {}, counted for {:.1f} s. Rates in bit/s, of packets of 188 bytes.\n",
                            report["kind"].get<std::string>(), report["place"].get<std::string>(),
                            report["counted_ms"].get<double>() / 1000);
}

}  // namespace commands
