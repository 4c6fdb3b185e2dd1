// The signals at the RF connectors, from the status: for `qamctl rf` and the panel.
#pragma once

#include <string>
#include <vector>

#include "commands/json_fields.h"

namespace commands {

// The readout of each channel of a card's status entry, each with its slot and channel.
Json rfOfCard(const Json& card);

// A readout in one line: "554.000 MHz  100.0 dBuV  64-QAM  6875 kBd (clock 6875.000)  on air".
std::string rfLine(const Json& readout);

// A table of such readouts with a heading; a line below a channel gives the reason if it is off or faulty.
std::vector<std::string> rfLines(const Json& readouts);

}  // namespace commands
