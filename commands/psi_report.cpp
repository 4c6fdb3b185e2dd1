#include "commands/psi_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "client/psi_capture.h"
#include "commands/psi_decode.h"

namespace commands {
namespace {

using client::PsiStore;
using client::StoredTable;
using mpeg::Packet;
using mpeg::Section;

// Packets of each group, in the order in which the carousel sends them. A packet before the first start is a
// group of its own, as on the card.
std::vector<std::size_t> groups(PsiType type, const StoredTable& table) {
  std::vector<std::size_t> sizes;
  if (type == PMT) {
    if (table.stored > 0) sizes.push_back(table.stored);
    return sizes;
  }
  bool opened = false;
  for (const auto& pid : table.pids) {
    for (const Packet& packet : pid.packets) {
      opened = opened || mpeg::startsUnit(packet);
      if (mpeg::startsUnit(packet) || !opened)
        sizes.push_back(1);
      else
        ++sizes.back();
    }
  }
  return sizes;
}

std::size_t packetsOf(const Section& section) {
  std::vector<Packet> packets;
  u8 counter = 0;
  mpeg::packSection(section, counter, packets);
  return packets.size();
}

Json sectionsOf(const StoredTable& table) {
  Json sections = Json::array();
  for (const auto& pid : table.pids) {
    for (const Section& section : client::gatherSections(pid.packets)) {
      sections.push_back({{"pid", pid.pid},
                          {"extension", section.extension()},
                          {"version", section.version()},
                          {"section", section.number()},
                          {"last_section", section.lastNumber()},
                          {"packets", packetsOf(section)},
                          {"content", decodeSection(section)}});
    }
  }
  return sections;
}

Json tableReport(PsiType type, const StoredTable& table, std::optional<double> auxHz) {
  constexpr double kMsPerSecond = 1000;
  const auto whole = wholeTableTicks(type, table);
  Json report = {{"table", mpeg::tableName(type)},
                 {"packets", table.stored},
                 {"packets_out_of_reach", table.outOfReach()},
                 {"interval_ticks", table.interval_ticks}};
  if (auxHz) report["interval_ms"] = table.interval_ticks * kMsPerSecond / *auxHz;
  report["whole_table_ticks"] = whole ? Json(*whole) : Json();
  if (auxHz)
    report["whole_table_ms"] = whole ? Json(static_cast<double>(*whole) * kMsPerSecond / *auxHz) : Json();
  report["sections"] = sectionsOf(table);
  return report;
}

// --- As text
// --------------------------------------------------------------------------------------------------

std::string time(const Json& table, const std::string& what) {
  const Json& ticks = table[what + "_ticks"];
  if (ticks.is_null()) return "never";
  std::string text = fmt::format("{} ticks", ticks.get<std::size_t>());
  if (table.contains(what + "_ms")) text += fmt::format(" ({:.0f} ms)", table[what + "_ms"].get<double>());
  return text;
}

std::string plural(std::size_t count, const char* noun) {
  return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

std::string overview(const Json& tables) {
  constexpr const char* kRow = "{:<6} {:>8} {:>8}  {:<24} {}\n";
  std::string text =
      fmt::format(fmt::runtime(kRow), "TABLE", "SECTIONS", "PACKETS", "INTERVAL", "WHOLE TABLE WITHIN");
  for (const Json& t : tables) {
    const bool stopped = t["interval_ticks"] == 0;
    const std::size_t beyond = t["packets_out_of_reach"];
    text += fmt::format(fmt::runtime(kRow), t["table"].get<std::string>(), t["sections"].size(),
                        t["packets"].get<std::size_t>(), stopped ? "0 (stopped)" : time(t, "interval"),
                        t["packets"] == 0 ? "-" : (beyond > 0 ? "more than " : "") + time(t, "whole_table"));
  }
  return text;
}

void appendCaSystems(std::string& text, const Json& systems, const char* role) {
  for (const Json& ca : systems) {
    text += fmt::format("  CA system {:#06x}: {} on PID {:#06x}\n", ca["system_id"].get<unsigned>(), role,
                        ca["pid"].get<unsigned>());
  }
}

void appendTransportStreams(std::string& text, const Json& streams) {
  for (const Json& ts : streams) {
    text += fmt::format("  transport stream {} of network {}\n", ts["transport_stream_id"].get<unsigned>(),
                        ts["original_network_id"].get<unsigned>());
  }
}

void appendItems(std::string& text, PsiType type, const Json& content) {
  switch (type) {
    case PAT:
      for (const Json& p : content["programmes"]) {
        text += fmt::format("  programme {}: PMT on PID {:#06x}\n", p["number"].get<unsigned>(),
                            p["pid"].get<unsigned>());
      }
      break;
    case PMT:
      appendCaSystems(text, content["ca_systems"], "ECM");
      for (const Json& es : content["streams"]) {
        text += fmt::format("  PID {:#06x}: {} (type {:#04x}){}\n", es["pid"].get<unsigned>(),
                            es["kind"].get<std::string>(), es["type"].get<unsigned>(),
                            es.contains("language") ? ", " + es["language"].get<std::string>() : "");
      }
      break;
    case SDT_C:
    case SDT_O:
      for (const Json& s : content["services"]) {
        text += fmt::format("  service {}: \"{}\" ({})\n", s["service_id"].get<unsigned>(),
                            s["name"].get<std::string>(), s["provider"].get<std::string>());
      }
      break;
    case CAT:
      appendCaSystems(text, content["ca_systems"], "EMM");
      break;
    case NIT_C:
    case NIT_O:
    case BAT:
      appendTransportStreams(text, content["transport_streams"]);
      break;
    default:
      break;
  }
}

std::string titleOf(PsiType type, const Json& content) {
  switch (type) {
    case PAT:
      return fmt::format("transport stream {}", content["transport_stream_id"].get<unsigned>());
    case PMT:
      return fmt::format("programme {}, PCR on PID {:#06x}", content["programme"].get<unsigned>(),
                         content["pcr_pid"].get<unsigned>());
    case SDT_C:
    case SDT_O:
      return fmt::format("transport stream {} of network {}", content["transport_stream_id"].get<unsigned>(),
                         content["original_network_id"].get<unsigned>());
    case NIT_C:
    case NIT_O:
      return fmt::format("network {} \"{}\"", content["network_id"].get<unsigned>(),
                         content["name"].get<std::string>());
    case BAT:
      return fmt::format("bouquet {} \"{}\"", content["bouquet_id"].get<unsigned>(),
                         content["name"].get<std::string>());
    default:
      return "conditional access";
  }
}

// The lines of one table; its title again only where another PID, extension or version begins.
std::string details(const Json& table) {
  const PsiType type = mpeg::tableOfName(table["table"].get<std::string>()).value();
  std::string text;
  std::string lastTitle;
  for (const Json& s : table["sections"]) {
    const Json& content = s["content"];
    const std::string what =
        content.is_null() ? fmt::format("extension {}: cannot be decoded", s["extension"].get<unsigned>())
                          : titleOf(type, content);
    const std::string title =
        fmt::format("{} on PID {:#06x}, version {}: {}\n", table["table"].get<std::string>(),
                    s["pid"].get<unsigned>(), s["version"].get<unsigned>(), what);
    if (title != lastTitle) text += title;
    lastTitle = title;
    if (!content.is_null()) appendItems(text, type, content);
  }
  return text;
}

}  // namespace

std::optional<std::size_t> wholeTableTicks(PsiType type, const StoredTable& table) {
  if (table.interval_ticks == 0 || table.stored == 0) return std::nullopt;
  std::size_t ticks = 0;
  for (const std::size_t packets : groups(type, table))
    ticks += std::max<std::size_t>(table.interval_ticks, packets);
  return ticks;
}

Json psiReport(const PsiStore& tables, const protocol::Channel& channel, std::optional<double> auxHz) {
  Json list = Json::array();
  std::size_t stored = 0;
  for (const PsiType type : mpeg::kAllTables) {
    const auto& table = tables.tables[type];
    stored += table.stored;
    list.push_back(tableReport(type, table, auxHz));
  }
  return {{"channel", protocol::channelName(channel)},
          {"locked", tables.locked},
          {"packets", stored},
          {"packets_out_of_reach", tables.outOfReach()},
          {"tables", std::move(list)}};
}

std::string psiText(const Json& report) {
  std::string text = fmt::format("Channel {}: {} stored\n", report["channel"].get<std::string>(),
                                 plural(report["packets"], "packet"));
  if (report["locked"].get<bool>()) {
    text +=
        "LOCKED: an upload is under way, or broke off; the channel sends no PSI, and its tables may be "
        "incomplete\n";
  }
  text += overview(report["tables"]);
  for (const Json& table : report["tables"]) {
    if (const std::size_t beyond = table["packets_out_of_reach"]; beyond > 0) {
      text +=
          fmt::format("{}: {} beyond what a card can be asked for ({} positions a table and PID)\n",
                      table["table"].get<std::string>(), plural(beyond, "packet"), client::kReachablePackets);
    }
  }
  for (const Json& table : report["tables"]) text += details(table);
  return text;
}

}  // namespace commands
