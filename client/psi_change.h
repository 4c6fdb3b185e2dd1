// Plans for a channel's tables and their intervals. See channel_change.h.
#pragma once

#include "client/channel_change.h"

namespace client {

// All read the channel and check; throw Error. A channel whose tables another client has locked is refused
// unless options.force.

// Replaces the tables, and sets intervals under the same lock.
ChannelChange planLoad(Link& link, const Channel& channel, Tables tables, const Intervals& intervals,
                       const ChangeOptions& options = {});
ChannelChange planClear(Link& link, const Channel& channel, const ChangeOptions& options = {});
// Sets intervals while the tables are on the air, and has the card save them.
ChannelChange planIntervals(Link& link, const Channel& channel, const Intervals& intervals);

}  // namespace client
