#include "commands/map_options.h"

#include <fmt/format.h>

namespace commands {

client::MapOptions mapOptions(Session& session, const protocol::Channel& channel) {
  client::MapOptions options;
  const std::filesystem::path folder = session.rescueFolder();
  if (!folder.empty())
    options.rescueFile = folder / fmt::format("pidmap-{}.rescue.csv", protocol::channelName(channel));
  options.sources = session.inputs();
  options.note = [&session](const std::string& text) { session.note(text); };
  return options;
}

}  // namespace commands
