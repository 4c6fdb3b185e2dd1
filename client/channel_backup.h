// All that a channel stores, to be saved and put back as a whole, on this channel or another one.
#pragma once

#include <vector>

#include "client/channel_change.h"

namespace client {

struct ChannelContent {
  Channel channel{};  // which it was read from
  Intervals intervals{};
  Tables tables{};
  std::vector<MapEntry> map{};
};

// Throws Error if the tables or the map are locked, or if packets are out of reach.
ChannelContent readContent(Link& link, const Channel& channel);

// Throws Error for tables or a map that a card cannot hold; see checkStorable and checkMap.
void checkContent(const ChannelContent& content, const ChangeOptions& options);

// Replaces tables, map and intervals in one change. options.force also ends a lock of the map that another
// client has left. Throws Error.
ChannelChange planRestore(Link& link, const Channel& channel, const ChannelContent& content,
                          const ChangeOptions& options = {});

}  // namespace client
