// qamctl rates: what comes into each channel, and what it sends.
#include <fmt/format.h>

#include <memory>

#include "tools/commands.h"
#include "tools/programme_report.h"

namespace tools {

void addRatesCommand(CLI::App& app, const std::string& server) {
  const auto json = std::make_shared<bool>(false);
  CLI::App* rates = addCommand(
      app, "rates", "Show the rates of each channel: input, routed, PSI, null and total", [json, &server] {
        const Json report = ratesReport(requiredStatusOf(server));
        if (*json)
          printJson(report);
        else
          fmt::print("{}", ratesText(report));
      });
  addJson(rates, *json);
  rates->footer(
      "Input is what comes in from the inputs that the channel's PID map names, routed what of it is sent. A "
      "channel that drops packets has more routed to it than its symbol rate and constellation carry.");
}

}  // namespace tools
