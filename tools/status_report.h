// What `qamctl status` tells: the chassis's status object as text for people.
#pragma once

#include <optional>
#include <string>

#include "tools/psi_decode.h"

namespace tools {

// The status in lines. Whatever is missing from it, or of another kind than expected, is left out.
std::string statusText(const Json& status);

// The rate of the carousel's ticks that the status tells; nothing when it does not.
std::optional<double> auxHzOf(const Json& status);

}  // namespace tools
