#include "client/channel_change.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace client {
namespace {

namespace fs = std::filesystem;

bool isThere(const fs::path& file) {
  std::error_code none;
  return !file.empty() && fs::exists(file, none);
}

void refuseLeftFile(const fs::path& file, const std::string& content, const std::string& commands) {
  if (!isThere(file)) return;
  fail(
      "nothing was changed: {} exists. It holds {} from before a change that failed and could not be put "
      "back, or that is in progress.\n{}. Then, or if it is not wanted, remove the file",
      file.string(), content, commands);
}

void refuseLocked(const ChannelChange& change) {
  const std::string name = channelName(change.before.channel);
  constexpr const char* kLocked =
      "the {} of channel {} {} locked: another client is loading it, or stopped before the end. When no "
      "client is at work any more, {}";
  if (change.before.psi.locked && !change.options.force)
    fail(kLocked, "tables", name, "are", recoveryHint(change.before.channel));
  if (change.before.map.locked && !change.release) {
    const fs::path& file = change.options.mapFile;
    fail(kLocked, "PID map", name, "is",
         isThere(file) ? fmt::format("'qamctl pidmap release {} --restore {}' ends the lock with the old map",
                                     name, file.string())
                       : fmt::format("'qamctl pidmap release {}' ends the lock", name));
  }
}

// The entries of `from` that are not in `other`, a line each.
std::string linesOf(char sign, const std::vector<MapEntry>& from, const std::vector<MapEntry>& other) {
  std::vector<MapEntry> entries;
  std::ranges::set_difference(from, other, std::back_inserter(entries));
  std::string text;
  for (const MapEntry& e : entries) {
    text += fmt::format("  {} {} PID {:#06x} to PID {:#06x}, programme {} to {}, type {}\n", sign,
                        inputName({e.sourceSlot, e.sourcePort}), e.sourcePid, e.pid, e.sourceProgramme,
                        e.programme, e.type);
  }
  return text;
}

std::string mapLines(std::vector<MapEntry> before, std::vector<MapEntry> after) {
  std::ranges::sort(before);
  std::ranges::sort(after);
  return fmt::format("PID map: {} entries, {} before\n", after.size(), before.size()) +
         linesOf('-', before, after) + linesOf('+', after, before);
}

std::string tableLines(const PsiStore& before, const Tables& after) {
  std::string text;
  for (const PsiType type : kAllTables) {
    const std::size_t packets = packetsIn(after, type);
    const std::size_t old = before.tables[type].stored;
    if (packets == 0 && old == 0) continue;
    text += fmt::format("{}: {} sections in {} packets, {} packets before\n", tableName(type),
                        sectionsOf(after, type).size(), packets, old);
  }
  if (before.outOfReach() > 0) {
    text += fmt::format("{} packets cannot be read back: these tables cannot be put back after a failure\n",
                        before.outOfReach());
  }
  return text;
}

}  // namespace

std::string recoveryHint(const Channel& channel, const std::string& file) {
  return fmt::format(
      "'qamctl psi load {0} {1} --force' loads it anew, 'qamctl psi clear {0} --force' leaves it empty",
      channelName(channel), file);
}

void ChannelChange::check() const {
  refuseLocked(*this);
  const std::string name = channelName(before.channel);
  if (map) {
    refuseLeftFile(release ? fs::path() : options.mapFile, "the PID map of channel " + name,
                   fmt::format("'qamctl pidmap show {0}' shows the present map, 'qamctl pidmap load {0} "
                               "FILE' loads a copy of the file",
                               name));
    if (map->size() > kPidMapSize) {
      fail("the PID map of channel {} would have {} entries, and it holds {}", name, map->size(),
           kPidMapSize);
    }
  }
  if (tables) {
    refuseLeftFile(options.force ? fs::path() : options.tablesFile, "the tables of channel " + name,
                   fmt::format("'qamctl psi show {0}' shows the present tables, 'qamctl psi load {0} {1} "
                               "--force' loads the file",
                               name, options.tablesFile.string()));
    checkStorable(*tables);
  }
  for (const auto& [type, ticks] : intervals) {
    if (ticks > kMaxInterval)
      fail("an interval of {} ticks for {} is more than {}", ticks, tableName(type), kMaxInterval);
  }
}

std::string ChannelChange::describe() const {
  std::string text = fmt::format("Channel {}: {}\n", channelName(before.channel),
                                 release && tables   ? "ends the lock of the PID map, locks the tables"
                                 : release           ? "ends the lock of the PID map"
                                 : tables && map     ? "locks PID map and tables"
                                 : tables            ? "locks the tables"
                                 : map               ? "locks the PID map"
                                 : intervals.empty() ? "nothing changes"
                                                     : "no lock");
  if (map) text += mapLines(before.map.entries, *map);
  if (tables) text += tableLines(before.psi, *tables);
  for (const auto& [type, ticks] : intervals) {
    text += fmt::format("Interval of {}: {} ticks, {} before\n", tableName(type), ticks,
                        before.psi.tables[type].interval_ticks);
  }
  return text;
}

// ---- Plans for the tables

ChannelChange planLoad(Link& link, const Channel& channel, Tables tables, const Intervals& intervals,
                       const ChangeOptions& options) {
  checkStorable(tables);
  ChannelChange change{.before = {.channel = channel, .psi = readPsiOnce(link, channel)},
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
  ChannelChange change{.before = {.channel = channel}, .intervals = intervals};
  change.check();
  const ChannelVariables card(link, channel);
  for (const auto& [type, ticks] : intervals)
    change.before.psi.tables[type].interval_ticks = card.readInterval(type).ticks;
  return change;
}

}  // namespace client
