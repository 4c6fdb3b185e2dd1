#include "client/psi_change.h"

#include "client/channel_variables.h"

namespace client {

ChannelChange planLoad(Link& link, const Channel& channel, Tables tables, const Intervals& intervals,
                       const ChangeOptions& options) {
  checkStorable(tables);
  ChannelChange change{.before = {.channel = channel, .psi = readPsiOnce(link, channel), .map = {}},
                       .tables = std::move(tables),
                       .intervals = intervals,
                       .options = options};
  change.check();
  return change;
}

ChannelChange planClear(Link& link, const Channel& channel, const ChangeOptions& options) {
  return planLoad(link, channel, {}, {}, options);
}

ChannelChange planIntervals(Link& link, const Channel& channel, const Intervals& intervals) {
  ChannelChange change{.before = {.channel = channel, .psi = {}, .map = {}}, .intervals = intervals};
  change.check();
  ChannelVariables card(link, channel);
  for (const auto& [type, ticks] : intervals)
    change.before.psi.tables[type].interval_ticks = card.readInterval(type).ticks;
  return change;
}

}  // namespace client
