// The chassis's status object, and what `qamctl status` tells of it as text for people.
#pragma once

#include <optional>
#include <string>

#include "client/link.h"
#include "tools/psi_decode.h"

namespace tools {

// What the server tells of its chassis; nothing when it does not. Throws client::Error.
std::optional<Json> statusOf(client::Link& link);

// The status in lines. Whatever is missing from it, or of another kind than expected, is left out.
std::string statusText(const Json& status);

// The rate of the carousel's ticks that the status tells; nothing when it does not.
std::optional<double> auxHzOf(const Json& status);

}  // namespace tools
