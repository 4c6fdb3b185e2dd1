// The reports of `qamctl programme list` and `qamctl rates`, as JSON and as text for users.
#pragma once

#include <string>
#include <vector>

#include "client/programme_plan.h"
#include "commands/json_fields.h"

namespace commands {

// An object with channel and programmes: a list of objects with number, name, pmt_pid, pcr_pid (null for
// none) and pids: [{pid, use ("stream", "pcr" or "ca"), stream_type, ca_system, source}], where source is
// null or {slot, input, pid, programme}, slot and input from 1. stream_type and ca_system are present where
// they apply.
Json programmeReport(const protocol::Channel& channel, const std::vector<client::Programme>& programmes);
std::string programmeText(const Json& report);

// From a status object: a list of {channel, input, routed, psi, null, total (bit/s), dropped (packets)};
// values missing in the status are null.
Json ratesReport(const Json& status);
std::string ratesText(const Json& report);

}  // namespace commands
