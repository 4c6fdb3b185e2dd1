// What a chassis reports of itself: its status object as text for users, and its alarms as JSON.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "client/channel_change.h"
#include "client/link.h"
#include "commands/json_fields.h"
#include "protocol/alarms.h"

namespace commands {

// The server's status of its chassis; nullopt if it gives none. Throws client::Error.
std::optional<Json> statusOf(client::Link& link);

// The status in lines. Members that are missing or of an unexpected type are skipped.
std::string statusText(const Json& status);

// The number of inputs of each source card; nullopt if the status does not have it.
std::optional<client::InputCounts> inputsOf(const Json& status);

// Parts of that text, for the headend's own view. A card's state in one line.
std::string cardLine(const Json& card);
// What an operator must know about a channel, as "1.2", at once: a lock, a lost input.
std::vector<std::string> channelNotes(const std::string& name, const Json& channel);
// Failed checks and protocol violations, in lines; empty if there are none.
std::string faultsText(const Json& status);

// The tick rate of the carousel from the status; nullopt if it is missing.
std::optional<double> auxHzOf(const Json& status);

// From a status object: the readouts of the channels of one slot (from 0) or of all, each with its slot and
// channel.
Json rfOf(const Json& status, std::optional<int> slot = {});

// A readout in one line: "554.000 MHz  100.0 dBuV  64-QAM  6875 kBd (clock 6875.000)  on air".
std::string rfLine(const Json& readout);

// A table of such readouts with a heading; a line below a channel gives the reason if it is off or faulty.
std::vector<std::string> rfLines(const Json& readouts);

// From a status object: a list of {channel, input, routed, psi, null, total (bit/s), dropped (packets)};
// values missing in the status are null.
Json ratesReport(const Json& status);
std::string ratesText(const Json& report);

// An object with slot, port, type, happened (seconds since 1970-01-01 UTC), and in en and zh: title, text and
// trap (the text for logs).
Json alarmJson(const protocol::Alarm& alarm);

}  // namespace commands
