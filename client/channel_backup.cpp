#include "client/channel_backup.h"

#include "client/pid_map.h"
#include "client/programme.h"

namespace client {

ChannelContent readContent(Link& link, const Channel& channel) {
  const ChannelState state = readOutput(link, channel);
  if (const std::size_t lost = state.psi.outOfReach(); lost > 0)
    fail("{} packets of {} cannot be read back from the card", lost, ownerName(channel));
  ChannelContent content{
      .channel = channel, .tables = state.psi.readable(), .map = asKept(state.map.entries)};
  for (const PsiType type : kAllTables) content.intervals[type] = state.psi.tables[type].interval_ticks;
  return content;
}

void checkContent(const ChannelContent& content, const ChangeOptions& options) {
  checkMap(content.map, options);
  checkStorable(content.tables);
}

ChannelChange planRestore(Link& link, const Channel& channel, const ChannelContent& content,
                          const ChangeOptions& options) {
  checkContent(content, options);
  ChannelChange change{
      .before = {.channel = channel, .psi = readPsiOnce(link, channel), .map = readMapOnce(link, channel)},
      .tables = content.tables,
      .map = content.map,
      .intervals = content.intervals,
      .options = options};
  change.release = change.before.map.locked && options.force;
  change.check();
  return change;
}

}  // namespace client
