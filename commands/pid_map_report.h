// The report of `qamctl pidmap show` about a channel's map: the card's record and the chassis's router, as
// JSON and as text for users.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "client/channel_state.h"
#include "commands/json_fields.h"

namespace commands {

// An object with channel, locked, announced_only (entries announced but never received), record (a list of
// objects with the members of a map file), router (the same without programme numbers and type; null if the
// chassis gives none), repeated (positions of the router whose source has an earlier position, which takes
// effect) and router_holds_record (null as router).
Json pidMapReport(const client::PidMap& map, const protocol::Channel& channel,
                  const std::optional<std::vector<chassis::RouterWords>>& router);

// The report of pidMapReport as text lines.
std::string pidMapText(const Json& report);

}  // namespace commands
