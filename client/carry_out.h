// Carries a change of a channel out: see channel_change.h.
#pragma once

#include "client/channel_change.h"

namespace client {

// Locks, writes, compares, unlocks and verifies. With tables and a map, the map is unlocked while the tables
// are locked, so tables on the air never name PIDs that are not routed. After a failure the old content is
// put back. Throws Error: what() says of each part whether it was put back, and if not, what is known of its
// state and which commands mend it; kNoReply only if nothing was changed yet.
void carryOut(Link& link, const ChannelChange& change);

}  // namespace client
