// The chassis's status object, and the report of `qamctl status` about it as text for users.
#pragma once

#include <optional>
#include <string>

#include "client/channel_change.h"
#include "client/link.h"
#include "commands/json_fields.h"

namespace commands {

// The server's status of its chassis; nullopt if it gives none. Throws client::Error.
std::optional<Json> statusOf(client::Link& link);

// The status in lines. Members that are missing or of an unexpected type are skipped.
std::string statusText(const Json& status);

// The number of inputs of each source card; nullopt if the status does not have it.
std::optional<client::InputCounts> inputsOf(const Json& status);

// The tick rate of the carousel from the status; nullopt if it is missing.
std::optional<double> auxHzOf(const Json& status);

}  // namespace commands
