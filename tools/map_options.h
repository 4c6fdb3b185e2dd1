// The care with which every command of qamctl loads a PID map: where the map that was there is kept
// meanwhile, and what the chassis has as inputs. Used by pidmap and programme.
#pragma once

#include <string>

#include "client/pid_map_upload.h"

namespace tools {

// With the rescue file "ADDR:PORT/pidmap-N.P.rescue.csv" in $XDG_STATE_HOME/qamctl, else
// ~/.local/state/qamctl, else the folder for temporary files; its folder is made. With the inputs that the
// status tells of, and with notes to stderr. Throws Error when no reply comes,
// std::filesystem::filesystem_error when the folder cannot be made.
client::MapOptions mapOptions(client::Link& link, const std::string& server,
                              const protocol::Channel& channel);

}  // namespace tools
