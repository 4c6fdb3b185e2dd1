// What `qamctl pidmap show` tells of a channel's map: the card's record beside the chassis's router, as JSON
// and as text for people.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "client/channel_variables.h"
#include "tools/psi_decode.h"

namespace tools {

// An object with channel, locked, announced_only (entries announced that never came), record (a list of
// objects with the members of a map file), router (the same without programme numbers and type; null when the
// chassis does not tell), repeated (positions of the router whose source stands at an earlier one, which it
// takes) and router_holds_record (null as router).
Json pidMapReport(const client::PidMap& map, const protocol::Channel& channel,
                  const std::optional<std::vector<chassis::RouterWords>>& router);

// The report of pidMapReport in lines.
std::string pidMapText(const Json& report);

}  // namespace tools
