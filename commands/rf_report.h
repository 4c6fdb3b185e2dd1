// The signals at the RF connectors, from the status: for `qamctl rf` and the panel.
#pragma once

#include <string>
#include <vector>

#include "commands/json_fields.h"

namespace commands {

// The readout of each channel of a card's status entry, each with its slot and channel.
Json rfOfCard(const Json& card);

// A table of such readouts with a heading; a line below a channel gives the reason if it is off or faulty.
std::vector<std::string> rfLines(const Json& readouts);

}  // namespace commands
