// qamctl status: the cards of the chassis and what they send.
#include <fmt/format.h>

#include <memory>

#include "tools/commands.h"
#include "tools/status_report.h"

namespace tools {

void addStatusCommand(CLI::App& app, const std::string& server) {
  const auto json = std::make_shared<bool>(false);
  CLI::App* status =
      addCommand(app, "status", "Show the cards of the chassis and what they send", [json, &server] {
        const Json told = requiredStatusOf(server);
        if (*json) {
          printJson(told);
        } else {
          fmt::print("{}", statusText(told));
        }
      });
  addJson(status, *json);
}

}  // namespace tools
