#include "commands/programme_report.h"

#include <fmt/format.h>

#include "commands/json_fields.h"

namespace commands {
namespace {

constexpr const char* kRates[] = {"input", "routed", "psi", "null", "total"};

Json sourceOf(const client::ProgrammePid& pid) {
  if (!pid.source) return {};
  return {{"slot", pid.source->sourceSlot + 1},
          {"input", pid.source->sourcePort + 1},
          {"pid", pid.source->sourcePid},
          {"programme", pid.source->sourceProgramme}};
}

Json pidReport(const client::ProgrammePid& pid) {
  using Use = client::PidField::Use;
  Json report = {{"pid", pid.pid}};
  switch (pid.field.use) {
    case Use::kStream:
      report["use"] = "stream";
      report["stream_type"] = pid.field.streamType;
      break;
    case Use::kPcr:
      report["use"] = "pcr";
      break;
    case Use::kCa:
      report["use"] = "ca";
      report["ca_system"] = pid.field.caSystem;
      break;
  }
  report["source"] = sourceOf(pid);
  return report;
}

std::string pidText(const Json& pid) {
  std::string use = pid["use"].get<std::string>();
  if (pid.contains("stream_type")) use += fmt::format(" {:#04x}", pid["stream_type"].get<int>());
  if (pid.contains("ca_system")) use += fmt::format(" {:#06x}", pid["ca_system"].get<int>());
  const Json& source = pid["source"];
  return fmt::format("    {:#06x} {:<12} {}\n", pid["pid"].get<int>(), use,
                     source.is_null() ? "from nowhere: the PID map has no entry for it"
                                      : fmt::format("from {}.{} PID {:#06x}", source["slot"].get<int>(),
                                                    source["input"].get<int>(), source["pid"].get<int>()));
}

}  // namespace

Json programmeReport(const protocol::Channel& channel, const std::vector<client::Programme>& programmes) {
  Json list = Json::array();
  for (const client::Programme& programme : programmes) {
    Json pids = Json::array();
    for (const client::ProgrammePid& pid : programme.pids) pids.push_back(pidReport(pid));
    list.push_back({{"number", programme.number},
                    {"name", programme.name},
                    {"pmt_pid", programme.pmtPid},
                    {"has_pmt", programme.hasPmt},
                    {"pcr_pid", programme.pcrPid == kNullPid ? Json() : Json(programme.pcrPid)},
                    {"pids", std::move(pids)}});
  }
  return {{"channel", protocol::channelName(channel)}, {"programmes", std::move(list)}};
}

std::string programmeText(const Json& report) {
  std::string text;
  for (const Json& programme : report["programmes"]) {
    const Json& pcr = programme["pcr_pid"];
    text += fmt::format("{} '{}': PMT PID {:#06x}{}, {}\n", programme["number"].get<int>(),
                        programme["name"].get<std::string>(), programme["pmt_pid"].get<int>(),
                        programme["has_pmt"].get<bool>() ? "" : ", which the channel does not store",
                        pcr.is_null() ? "no PCR" : fmt::format("PCR PID {:#06x}", pcr.get<int>()));
    for (const Json& pid : programme["pids"]) text += pidText(pid);
  }
  return text.empty() ? fmt::format("channel {} has no programmes\n", report["channel"].get<std::string>())
                      : text;
}

Json ratesReport(const Json& status) {
  Json list = Json::array();
  for (const Json& card : member(status, "cards")) {
    const Json channels = member(card, "channels");
    if (!channels.is_array()) continue;
    for (std::size_t i = 0; i < channels.size(); ++i) {
      const Json rates = member(channels[i], "rates");
      Json row = {{"channel", fmt::format("{}.{}", whole(card, "slot"), i + 1)}};
      for (const char* rate : kRates) row[rate] = member(rates, rate);
      row["dropped"] = member(member(channels[i], "packets"), "dropped");
      list.push_back(std::move(row));
    }
  }
  return list;
}

std::string ratesText(const Json& report) {
  std::string text = fmt::format("{:<4}", "");
  for (const char* rate : kRates) text += fmt::format(" {:>11}", rate);
  text += fmt::format(" {:>11}\n", "dropped");
  for (const Json& row : report) {
    text += fmt::format("{:<4}", oneLine(row["channel"]));
    for (const char* rate : kRates) text += fmt::format(" {:>11}", whole(row, rate));
    text += fmt::format(" {:>11}\n", whole(row, "dropped"));
  }
  return text + "Rates in bit/s, of packets of 188 bytes; dropped in packets since the start.\n";
}

}  // namespace commands
