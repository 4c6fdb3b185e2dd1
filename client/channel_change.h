// A change of a channel: what it holds now and what it shall hold. A plan makes it (psi_change,
// pid_map_change, programme), and carryOut (carry_out.h) does it:
//   ChannelChange change = planClear(link, channel);  // reads and checks, changes nothing
//   if (dryRun) print(change.describe()); else carryOut(link, change);
// There is no socket, thread or clock in it, so it also runs in virtual time.
#pragma once

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
  std::function<std::string(std::size_t)>
      nameOf{};  // of a map entry, for messages; empty: "entry 1" and so on
  std::function<void(const std::string& text)> note{};                  // receives notes for the operator
  std::function<void(std::size_t sent, std::size_t total)> progress{};  // after each request, in packets
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

// "'qamctl psi load 1.2 FILE --force' loads it anew, ...": for a channel whose tables are locked.
std::string recoveryHint(const Channel& channel, const std::string& file = "FILE");

}  // namespace client
