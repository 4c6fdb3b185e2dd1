#include "tools/map_options.h"

#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>

#include "tools/commands.h"
#include "tools/json_fields.h"
#include "tools/status_report.h"

namespace tools {
namespace {

namespace fs = std::filesystem;

// Only absolute ones count, so that a rescue file is found again from any folder.
std::optional<fs::path> folderIn(const char* variable) {
  const char* value = std::getenv(variable);
  const fs::path folder = value != nullptr ? value : "";
  return folder.is_absolute() ? std::optional(folder) : std::nullopt;
}

fs::path stateFolder() {
  if (const auto state = folderIn("XDG_STATE_HOME")) return *state;
  if (const auto home = folderIn("HOME")) return *home / ".local" / "state";
  return fs::temp_directory_path();
}

fs::path rescueFileOf(const std::string& server, const protocol::Channel& channel) {
  return stateFolder() / "qamctl" / server /
         fmt::format("pidmap-{}.rescue.csv", protocol::channelName(channel));
}

// Nothing when the status tells of none.
std::optional<client::InputCounts> sourcesOf(const Json& status) {
  const Json list = member(status, "sources");
  if (!list.is_array()) return std::nullopt;
  client::InputCounts sources;
  for (const Json& card : list) {
    const auto slot = number(card, "slot");
    const Json inputs = member(card, "inputs");
    if (!slot || *slot < 1 || *slot > MAX_BOARD_NUM || !inputs.is_array()) return std::nullopt;
    sources[static_cast<u16>(*slot - 1)] = static_cast<u32>(inputs.size());
  }
  return sources;
}

}  // namespace

client::ChangeOptions mapOptions(client::Link& link, const std::string& server,
                                 const protocol::Channel& channel) {
  client::ChangeOptions options;
  options.mapFile = rescueFileOf(server, channel);
  fs::create_directories(options.mapFile.parent_path());
  if (const auto status = statusOf(link)) options.sources = sourcesOf(*status);
  options.note = [](const std::string& text) { fmt::print(stderr, "note: {}\n", text); };
  return options;
}

}  // namespace tools
