#include "client/pid_map_change.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <utility>

#include "client/chassis_services.h"

namespace client {
namespace {

using Entries = std::vector<MapEntry>;

void tell(const ChangeOptions& options, const std::string& text) {
  if (options.note) options.note(text);
}

std::string nameOf(const ChangeOptions& options, std::size_t index) {
  return options.nameOf ? options.nameOf(index) : fmt::format("entry {}", index + 1);
}

// Empty when the entry is right by itself.
std::string faultOf(const MapEntry& e, const std::optional<InputCounts>& sources) {
  constexpr u16 kHighestType = 0xFF;
  if (e.sourceSlot >= MAX_BOARD_NUM)
    return fmt::format("src_slot {} is above {}", e.sourceSlot + 1, MAX_BOARD_NUM);
  if (e.sourcePort >= kInputsPerCard) {
    return fmt::format("src_port {} is above {}", std::uint64_t{e.sourcePort} + 1, kInputsPerCard);
  }
  for (const auto& [column, pid] : {std::pair("src_pid", e.sourcePid), std::pair("dst_pid", e.pid)}) {
    if (pid > kNullPid) return fmt::format("{} {:#06x} is above 0x1FFF", column, pid);
    if (pid == kNullPid) return fmt::format("{} 0x1FFF is that of null packets", column);
  }
  if (e.type > kHighestType) return fmt::format("type {} is above {}", e.type, kHighestType);
  if (!sources) return "";
  const auto card = sources->find(e.sourceSlot);
  if (card == sources->end()) return fmt::format("there is no source card in slot {}", e.sourceSlot + 1);
  if (e.sourcePort >= card->second) {
    return fmt::format("the source card in slot {} has no input {}: it has {}", e.sourceSlot + 1,
                       e.sourcePort + 1, card->second);
  }
  return "";
}

// The router takes the first of two entries of one source, and two sources on one PID break its continuity.
void refuseDoubles(const Entries& entries, const ChangeOptions& options) {
  std::map<u32, std::size_t> sources;
  std::map<u16, std::size_t> pids;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const auto [source, newSource] = sources.emplace(sourceKey(entries[i]), i);
    if (!newSource) {
      throw Error(fmt::format("{} and {} have the same source, PID {:#06x} of {}",
                              nameOf(options, source->second), nameOf(options, i), entries[i].sourcePid,
                              inputName({entries[i].sourceSlot, entries[i].sourcePort})));
    }
    const auto [pid, newPid] = pids.emplace(entries[i].pid, i);
    if (!newPid) {
      throw Error(fmt::format("{} and {} bring two sources onto dst_pid {:#06x}",
                              nameOf(options, pid->second), nameOf(options, i), entries[i].pid));
    }
  }
}

void noteTablePids(const Entries& entries, const ChangeOptions& options) {
  for (std::size_t i = 0; i < entries.size(); ++i) {
    for (const PsiType type : kAllTables) {
      if (tablePid(type) != entries[i].pid) continue;
      tell(options, fmt::format("{}: dst_pid {:#06x} is where the card sends tables of its own ({})",
                                nameOf(options, i), entries[i].pid, tableName(type)));
      break;
    }
  }
}

Entries withoutBlanks(const Entries& entries, const ChangeOptions& options) {
  Entries kept;
  std::ranges::copy_if(entries, std::back_inserter(kept), [](const MapEntry& e) { return !isBlank(e); });
  if (kept.size() != entries.size()) {
    tell(options, fmt::format("{} entries that were announced and never came are left out",
                              entries.size() - kept.size()));
  }
  return kept;
}

// What the lock is to be ended with.
Entries mapOfRelease(Link& link, const ChannelState& state, ReleaseBy by, const Entries& entries,
                     const ChangeOptions& options) {
  if (by == ReleaseBy::kMap) return withoutBlanks(entries, options);
  if (by == ReleaseBy::kRecord) return withoutBlanks(state.map.entries, options);
  tell(options, "the router knows no programme numbers and types: they become 0");
  try {
    return withoutBlanks(entriesOf(routerMap(link, state.channel)), options);
  } catch (const Error& e) {
    if (e.gotNoReply()) throw;
    throw Error(
        fmt::format("nothing was changed: {}; --restore FILE ends the lock with a map of yours", e.what()));
  }
}

}  // namespace

void checkMap(const Entries& entries, const ChangeOptions& options) {
  if (entries.size() > kPidMapSize) {
    throw Error(fmt::format("{} is one too many: a map has at most {} entries, this one has {}",
                            nameOf(options, kPidMapSize), kPidMapSize, entries.size()));
  }
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const std::string fault = faultOf(entries[i], options.sources);
    if (!fault.empty()) throw Error(fmt::format("{}: {}", nameOf(options, i), fault));
  }
  refuseDoubles(entries, options);
  noteTablePids(entries, options);
}

ChannelChange planMap(Link& link, const Channel& channel, const Entries& entries,
                      const ChangeOptions& options) {
  checkMap(entries, options);
  ChannelChange change{.before = {.channel = channel, .psi = {}, .map = readMapOnce(link, channel)},
                       .map = entries,
                       .options = options};
  withoutBlanks(change.before.map.entries, options);
  change.check();
  return change;
}

ChannelChange planRelease(Link& link, const Channel& channel, ReleaseBy by, const Entries& entries,
                          const ChangeOptions& options) {
  ChannelChange change{.before = {.channel = channel, .psi = {}, .map = readMapOnce(link, channel)},
                       .release = true,
                       .options = options};
  if (!change.before.map.locked) {
    throw Error(
        fmt::format("the PID map of {} is not locked: there is nothing to release, nothing was changed",
                    channelName(channel)));
  }
  change.map = mapOfRelease(link, change.before, by, entries, options);
  change.check();
  return change;
}

}  // namespace client
