// What goes out at the RF connectors, as the status tells it: for `qamctl rf` and the panel.
#pragma once

#include <string>
#include <vector>

#include "tools/psi_decode.h"

namespace tools {

// The readout of each channel of a card's status entry, with its slot and channel in front.
Json rfOfCard(const Json& card);

// A table of such readouts, its heading first; a line below a channel says why it is off or faulty.
std::vector<std::string> rfLines(const Json& readouts);

}  // namespace tools
