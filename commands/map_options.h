// The options with which all commands load a PID map: the file for the old map, and the inputs of the
// chassis.
#pragma once

#include "client/pid_map_upload.h"
#include "commands/command.h"

namespace commands {

// With the file "pidmap-N.P.rescue.csv" in the session's rescue folder. Throws client::Error if no reply
// arrives, std::filesystem::filesystem_error if the folder cannot be created.
client::MapOptions mapOptions(Session& session, const protocol::Channel& channel);

}  // namespace commands
