// qamctl rf: what an analyser at the RF connectors would show, as the status tells it.
#include <fmt/format.h>

#include <memory>
#include <stdexcept>

#include "tools/commands.h"
#include "tools/json_fields.h"
#include "tools/rf_report.h"

namespace tools {
namespace {

struct Options {
  const std::string& server;
  std::string slot{};  // empty: all
  bool json = false;
};

Json readout(const Options& options) {
  const Json status = requiredStatusOf(options.server);
  Json all = Json::array();
  bool found = false;
  for (const Json& card : member(status, "cards")) {
    const auto slot = number(card, "slot");
    if (!slot || (!options.slot.empty() && *slot != slotOf(options.slot) + 1)) continue;
    found = true;
    for (const Json& entry : rfOfCard(card)) all.push_back(entry);
  }
  if (!found) {
    throw std::runtime_error(options.slot.empty()
                                 ? fmt::format("{}: the chassis has no card", options.server)
                                 : fmt::format("{}: no card in slot {}", options.server, options.slot));
  }
  if (all.empty()) throw std::runtime_error(fmt::format("{}: the server tells no RF output", options.server));
  return all;
}

void rf(const Options& options) {
  const Json all = readout(options);
  if (options.json) {
    printJson(all);
  } else {
    for (const std::string& line : rfLines(all)) fmt::print("{}\n", line);
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
