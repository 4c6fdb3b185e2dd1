// Reports of what a chassis measures of its streams: the groups of a channel's tables, and the PIDs of an
// input or channel.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "commands/json_fields.h"
#include "mpeg/section.h"
#include "protocol/channel.h"
#include "protocol/stream_records.h"

namespace commands {

// The groups of the last `seconds`, as far as they are stored. An object with channel, now_tick, aux_hz,
// next_number and tables: a list of objects with
//   table, set_ticks, overdue_ticks, groups: [{number, tick, interval_ticks (null: unknown), due_ticks,
//   held_ticks, late_ticks}]
Json ticksReport(const protocol::GroupStarts& starts, const protocol::Channel& channel, double auxHz,
                 double seconds);
// A lane of characters for each table.
std::string ticksText(const Json& report, double seconds);

// What a service, or the chassis's tables, use a PID for. By PID: lists of objects with use ("PMT", "PCR",
// "stream", "ECM", "EMM", or the table of a reserved PID) and, of a service, service, name, kind and
// language.
class PidUses {
 public:
  explicit PidUses(const std::vector<mpeg::Section>& sections);
  Json of(u16 pid) const;

 private:
  std::map<u16, Json> uses_;
};

// An object with place, kind ("input" or "channel"), counted_ms and pids: a list of objects with
//   pid, packets, bit_rate, lowest, highest (null before a whole second), continuity_errors, pcr, scrambled
//   (booleans), uses (see PidUses; null if they are not known)
Json pidsReport(const protocol::PidCounts& counts, const std::string& place, const char* kind,
                const std::optional<PidUses>& uses);
std::string pidsText(const Json& report);

}  // namespace commands
