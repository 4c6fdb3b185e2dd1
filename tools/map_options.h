// The care with which every command of qamctl loads a PID map: where the map that was there is kept
// meanwhile, and what the chassis has as inputs. Used by pidmap and programme.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "client/pid_map_upload.h"
#include "tools/psi_decode.h"

namespace tools {

// "pidmap-N.P.rescue.csv" in $XDG_STATE_HOME/qamctl, else ~/.local/state/qamctl, else the folder for
// temporary files. The folder is made. Throws std::runtime_error when that fails.
std::filesystem::path rescueFileOf(const client::Channel& channel);

// The inputs that the status tells of; nothing when it tells of none.
std::optional<client::SourceCards> sourcesOf(const Json& status);

// All of it, with notes to stderr; makes the folder of the rescue file. Asks for the status: throws LinkError
// when no reply comes, std::filesystem::filesystem_error when the folder cannot be made.
client::MapOptions mapOptions(client::Link& link, const std::string& server, const client::Channel& channel);

}  // namespace tools
