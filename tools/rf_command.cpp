// qamctl rf: what an analyser at the RF connectors would show, as the status tells it.
#include <fmt/format.h>

#include <memory>
#include <stdexcept>
#include <utility>

#include "client/channel.h"
#include "tools/commands.h"
#include "tools/json_fields.h"

namespace tools {
namespace {

struct Options {
  const std::string& server;
  std::string slot{};  // empty: all
  bool json = false;
};

// The readout of each channel of the card, with its slot and channel in front.
void appendCard(Json& all, const Json& card) {
  const Json channels = member(card, "channels");
  for (std::size_t i = 0; channels.is_array() && i < channels.size(); ++i) {
    const Json rf = member(channels[i], "rf");
    if (!rf.is_object()) continue;
    Json entry = {{"slot", card["slot"]}, {"channel", i + 1}};
    entry.update(rf);
    all.push_back(std::move(entry));
  }
}

Json readout(const Options& options) {
  const Json status = requiredStatusOf(options.server);
  Json all = Json::array();
  bool found = false;
  for (const Json& card : member(status, "cards")) {
    const auto slot = number(card, "slot");
    if (!slot || (!options.slot.empty() && *slot != slotOf(options.slot) + 1)) continue;
    found = true;
    appendCard(all, card);
  }
  if (!found) {
    throw std::runtime_error(options.slot.empty()
                                 ? fmt::format("{}: the chassis has no card", options.server)
                                 : fmt::format("{}: no card in slot {}", options.server, options.slot));
  }
  if (all.empty()) throw std::runtime_error(fmt::format("{}: the server tells no RF output", options.server));
  return all;
}

// "-" where nothing is measured.
std::string measured(const Json& entry, const char* key, double unit, int decimals) {
  const auto value = number(entry, key);
  return value ? fmt::format("{:.{}f}", *value / unit, decimals) : "-";
}

std::string textOf(const Json& all) {
  constexpr auto kRow = "{:<4} {:<8} {:>9} {:>6} {:>8} {:>5} {:>10} {:>9}\n";
  std::string text = fmt::format(kRow, "", "", "MHz", "dBuV", "", "kBd", "clock kBd", "bit/s");
  for (const Json& entry : all) {
    const std::string constellation = oneLine(member(entry, "constellation"));
    text += fmt::format(kRow, fmt::format("{}.{}", whole(entry, "slot"), whole(entry, "channel")),
                        oneLine(member(entry, "verdict")), measured(entry, "frequency_khz", 1000, 4),
                        measured(entry, "level_dbuv", 1, 1), constellation.empty() ? "-" : constellation,
                        measured(entry, "symbol_rate_kbd", 1, 0), measured(entry, "clock_kbd", 1, 3),
                        measured(entry, "bit_rate", 1, 0));
    const std::string why = oneLine(member(entry, "why"));
    if (!why.empty()) text += fmt::format("     {}\n", why);
  }
  return text;
}

void rf(const Options& options) {
  const Json all = readout(options);
  if (options.json) {
    printJson(all);
  } else {
    fmt::print("{}", textOf(all));
  }
}

}  // namespace

void addRfCommand(CLI::App& app, const std::string& server) {
  const auto options = std::make_shared<Options>(Options{.server = server});
  CLI::App* command =
      addCommand(app, "rf", "Show what goes out at the RF connectors", [options] { rf(*options); });
  addSlot(command, options->slot);
  addJson(command, options->json);
  command->footer(
      "kBd is the symbol rate that the modulator was told, clock kBd the one that the clock generator gives. "
      "A "
      "channel\n"
      "is on air, off, or faulty; the line below says why. '-' stands for what cannot be measured.");
}

}  // namespace tools
