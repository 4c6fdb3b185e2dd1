#include "commands/rf_report.h"

#include <fmt/format.h>

#include <utility>

#include "commands/json_fields.h"

namespace commands {
namespace {

// "-" where nothing is measured.
std::string measured(const Json& entry, const char* key, double unit, int decimals) {
  const auto value = number(entry, key);
  return value ? fmt::format("{:.{}f}", *value / unit, decimals) : "-";
}

}  // namespace

Json rfOfCard(const Json& card) {
  Json readouts = Json::array();
  const Json channels = member(card, "channels");
  for (std::size_t i = 0; channels.is_array() && i < channels.size(); ++i) {
    const Json rf = member(channels[i], "rf");
    if (!rf.is_object()) continue;
    Json entry = {{"slot", member(card, "slot")}, {"channel", i + 1}};
    entry.update(rf);
    readouts.push_back(std::move(entry));
  }
  return readouts;
}

std::string rfLine(const Json& readout) {
  const std::string frequency = measured(readout, "frequency_khz", 1000, 3);
  const std::string constellation = oneLine(member(readout, "constellation"));
  const std::string clock = measured(readout, "clock_kbd", 1, 3);
  const std::string why = oneLine(member(readout, "why"));
  return fmt::format(
      "{}  {} dBuV  {}  {} kBd (clock {})  {}{}{}", frequency == "-" ? "no carrier" : frequency + " MHz",
      measured(readout, "level_dbuv", 1, 1), constellation.empty() ? "no constellation" : constellation,
      measured(readout, "symbol_rate_kbd", 1, 0), clock == "-" ? "none" : clock,
      oneLine(member(readout, "verdict")), why.empty() ? "" : ": ", why);
}

std::vector<std::string> rfLines(const Json& readouts) {
  constexpr auto kRow = "{:<4} {:<8} {:>9} {:>6} {:>8} {:>5} {:>10} {:>9}";
  std::vector<std::string> lines = {
      fmt::format(kRow, "", "", "MHz", "dBuV", "", "kBd", "clock kBd", "bit/s")};
  for (const Json& entry : readouts) {
    const std::string constellation = oneLine(member(entry, "constellation"));
    lines.push_back(fmt::format(kRow, fmt::format("{}.{}", whole(entry, "slot"), whole(entry, "channel")),
                                oneLine(member(entry, "verdict")), measured(entry, "frequency_khz", 1000, 4),
                                measured(entry, "level_dbuv", 1, 1),
                                constellation.empty() ? "-" : constellation,
                                measured(entry, "symbol_rate_kbd", 1, 0), measured(entry, "clock_kbd", 1, 3),
                                measured(entry, "bit_rate", 1, 0)));
    const std::string why = oneLine(member(entry, "why"));
    if (!why.empty()) lines.push_back("     " + why);
  }
  return lines;
}

}  // namespace commands
