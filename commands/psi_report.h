// The report of `qamctl psi show` about a channel's tables: numbers and names, as JSON and as text for users.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "client/channel_state.h"
#include "commands/json_fields.h"

namespace commands {

// Ticks from the first section of the table to the end of its last group's interval, if no other table delays
// it on its PID. Each section is a group and takes the interval, or its packets' ticks if those are more; the
// PMT list is one group. nullopt for a table that is stopped (interval 0) or empty.
std::optional<std::size_t> wholeTableTicks(PsiType type, const client::StoredTable& table);

// An object with channel, locked, packets, packets_out_of_reach and tables: a list of objects with
//   table, packets, packets_out_of_reach, interval_ticks, interval_ms, whole_table_ticks, whole_table_ms,
//   sections: [{pid, extension, version, section, last_section, packets, content (as decodeSection)}]
// The whole_table_ members are null if wholeTableTicks gives nullopt; those in milliseconds exist if auxHz is
// given.
Json psiReport(const client::PsiStore& tables, const protocol::Channel& channel, std::optional<double> auxHz);

// The report of psiReport as text lines.
std::string psiText(const Json& report);

}  // namespace commands
