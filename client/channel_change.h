// A change of a channel: what it holds now and what it shall hold. A plan makes it (below, pid_map,
// programme), and carryOut (carry_out.h) does it:
//   ChannelChange change = planClear(link, channel);  // reads and checks, changes nothing
//   if (dryRun) print(change.describe()); else carryOut(link, change);
// There is no socket, thread or clock in it, so it also runs in virtual time.
#pragma once

#include <fmt/format.h>

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client/channel_state.h"

namespace client {

// Number of inputs of the card in a slot (from 0).
using InputCounts = std::map<u16, u32>;

struct ChangeOptions {
  // Files for what the channel holds, from before the lock until the new content is on the air; kept if it
  // could not be put back. Empty: no file. An existing file belongs to an earlier failure: nothing is
  // changed.
  std::filesystem::path mapFile{};       // as CSV
  std::filesystem::path tablesFile{};    // a transport stream; ignored if forced
  bool force = false;                    // discard what another client has left under its lock of the tables
  std::optional<InputCounts> sources{};  // for checks of a map; nullopt: unknown, the card checks it
  // The name of a map entry in messages.
  std::function<std::string(std::size_t)> nameOf = [](std::size_t i) {
    return fmt::format("entry {}", i + 1);
  };
  std::function<void(const std::string& text)> note = [](const auto&) {};  // receives notes for the operator
  // After each request, in packets.
  std::function<void(std::size_t sent, std::size_t total)> progress = [](std::size_t, std::size_t) {};
};

struct ChannelChange {
  ChannelState before;
  std::optional<Tables> tables{};              // nullopt: the tables stay
  std::optional<std::vector<MapEntry>> map{};  // nullopt: the map stays
  Intervals intervals{};                       // the others stay
  bool release = false;                        // the map's lock is another client's, and is ended
  ChangeOptions options{};

  // Throws Error if the channel is locked, cannot hold this, or a rescue file exists.
  void check() const;
  // Lines for an operator: what is locked, replaced, added and removed.
  std::string describe() const;
};

// ---- Plans for the tables of a channel. All read the channel and check; throw Error. A channel whose tables
// another client has locked is refused unless options.force.

// Replaces the tables, and sets intervals under the same lock.
ChannelChange planLoad(Link& link, const Channel& channel, Tables tables, const Intervals& intervals,
                       const ChangeOptions& options = {});
ChannelChange planClear(Link& link, const Channel& channel, const ChangeOptions& options = {});
// Sets intervals while the tables are on the air, and has the card save them.
ChannelChange planIntervals(Link& link, const Channel& channel, const Intervals& intervals);

// "'qamctl psi load 1.2 FILE --force' loads it anew, ...": for a channel whose tables are locked.
std::string recoveryHint(const Channel& channel, const std::string& file = "FILE");

}  // namespace client
