// What the commands that change a channel have in common: they plan the change, and print the plan
// (--dry-run) or carry it out.
#pragma once

#include "client/channel_change.h"
#include "commands/command.h"

namespace commands {

class ChangeCommand : public Command {
 protected:
  void takeDryRun(Form& form) {
    form.flag("--dry-run", "read and check everything, print what would change, and change nothing", dryRun_);
  }
  // The files for what the channel holds are "pidmap-N.P.rescue.csv" and "psi-N.P.rescue.ts" in the session's
  // rescue folder. Throws client::Error if no reply arrives, std::filesystem::filesystem_error if the folder
  // cannot be created.
  client::ChangeOptions optionsFor(Session& session) const;
  // False: the change was only printed.
  bool apply(Session& session, const client::ChannelChange& change) const;

 private:
  bool dryRun_ = false;
};

}  // namespace commands
