#include "commands/change.h"

#include <fmt/format.h>

#include "client/carry_out.h"

namespace commands {

client::ChangeOptions ChangeCommand::optionsFor(Session& session) const {
  client::ChangeOptions options;
  const std::filesystem::path folder = session.rescueFolder();
  if (!folder.empty()) {
    const std::string name = protocol::channelName(channel());
    options.mapFile = folder / fmt::format("pidmap-{}.rescue.csv", name);
    options.tablesFile = folder / fmt::format("psi-{}.rescue.ts", name);
  }
  options.note = [&session](const std::string& text) { session.note(text); };
  options.progress = [&session](std::size_t sent, std::size_t total) {
    session.progress(fmt::format("{} of {} packets sent", sent, total));
  };
  return options;
}

bool ChangeCommand::apply(Session& session, const client::ChannelChange& change) const {
  if (dryRun_) {
    session.print(change.describe());
    return false;
  }
  client::carryOut(session.link(), change);
  session.progress("");
  return true;
}

}  // namespace commands
