// qamctl panel: the chassis's front panel on this terminal.
#include <memory>

#include "tools/commands.h"
#include "tools/panel/panel.h"

namespace tools {

void addPanelCommand(CLI::App& app, const std::string& server) {
  const auto patience = std::make_shared<unsigned>(30);
  CLI::App* command = addCommand(
      app, "panel", "Show the chassis's front panel on this terminal",
      [patience, &server] { runPanel({.server = server, .patience = std::chrono::seconds(*patience)}); });
  command->add_option("--patience", *patience, "seconds without an answer after which it ends")
      ->check(CLI::Range(1U, 86'400U))
      ->capture_default_str();
  command->footer(
      "Keys: the arrow keys, Enter and Esc are the panel's own; l changes the language of the alarms, p "
      "shows the\n"
      "LCD by its pixels where there is room, q, F10 and Ctrl-C quit. The headend goes on.");
}

}  // namespace tools
