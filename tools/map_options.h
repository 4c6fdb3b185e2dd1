// The options with which all commands of qamctl load a PID map: the file for the old map, and the inputs of
// the chassis. Used by pidmap and programme.
#pragma once

#include <string>

#include "client/channel_change.h"

namespace tools {

// With the rescue file "ADDR:PORT/pidmap-N.P.rescue.csv" in $XDG_STATE_HOME/qamctl, else
// ~/.local/state/qamctl, else the folder for temporary files; its folder is created. With the inputs from the
// status, and with notes to stderr. Throws Error if no reply arrives, std::filesystem::filesystem_error if
// the folder cannot be created.
client::ChangeOptions mapOptions(client::Link& link, const std::string& server,
                                 const protocol::Channel& channel);

}  // namespace tools
