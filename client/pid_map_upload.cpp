#include "client/pid_map_upload.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <system_error>
#include <utility>

#include "base/files.h"
#include "client/channel_variables.h"
#include "client/chassis_services.h"
#include "client/pid_map_file.h"

namespace client {
namespace {

using Entries = std::vector<MapEntry>;

void tell(const MapOptions& options, const std::string& text) {
  if (options.note) options.note(text);
}

std::string nameOf(const MapOptions& options, std::size_t index) {
  return options.nameOf ? options.nameOf(index) : fmt::format("entry {}", index + 1);
}

// ---- The check before the lock

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
void refuseDoubles(const Entries& entries, const MapOptions& options) {
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

void noteTablePids(const Entries& entries, const MapOptions& options) {
  for (std::size_t i = 0; i < entries.size(); ++i) {
    for (const PsiType type : kAllTables) {
      if (tablePid(type) != entries[i].pid) continue;
      tell(options, fmt::format("{}: dst_pid {:#06x} is where the card sends tables of its own ({})",
                                nameOf(options, i), entries[i].pid, tableName(type)));
      break;
    }
  }
}

// ---- What was there before

Entries withoutBlanks(const Entries& entries, const MapOptions& options) {
  Entries kept;
  std::ranges::copy_if(entries, std::back_inserter(kept), [](const MapEntry& e) { return !isBlank(e); });
  if (kept.size() != entries.size()) {
    tell(options, fmt::format("{} entries that were announced and never came are left out",
                              entries.size() - kept.size()));
  }
  return kept;
}

// The file that keeps a map until it is needed no more; nothing when there is to be none.
class Rescue {
 public:
  Rescue(std::filesystem::path file, const Channel& channel, const Entries& entries)
      : file_(std::move(file)) {
    if (file_.empty()) return;
    claim(channel);
    const std::string text = mapFileText(entries);
    try {
      base::replaceFile(file_, file_.string() + ".part", Bytes(text.begin(), text.end()));
    } catch (const std::system_error& e) {
      drop();
      throw Error(fmt::format("nothing was changed: the map of {} cannot be kept in {}: {}",
                              channelName(channel), file_.string(), e.what()));
    }
  }

  void drop() const {
    std::error_code gone;
    if (!file_.empty()) std::filesystem::remove(file_, gone);
  }

 private:
  // A file without a header is not a valid map, in case this process ends here.
  void claim(const Channel& channel) const {
    std::FILE* claimed = std::fopen(file_.c_str(), "wx");
    if (claimed != nullptr) {
      std::fclose(claimed);
      return;
    }
    const std::string name = channelName(channel);
    if (errno == EEXIST) {
      throw Error(fmt::format(
          "nothing was changed: {} stands there from a load of {} that broke off, or from one under way.\n"
          "It holds the map that the channel had before. 'qamctl pidmap show {}' tells what it has now: move "
          "the file away, and load it from there if that map is wanted; or remove it",
          file_.string(), name, name));
    }
    throw Error(fmt::format("nothing was changed: the map of {} cannot be kept in {}: {}", name,
                            file_.string(), std::generic_category().message(errno)));
  }

  std::filesystem::path file_;
};

// ---- What goes on under the lock

bool same(Entries a, Entries b) {
  std::ranges::sort(a);
  std::ranges::sort(b);
  return a == b;
}

// Reading the lock and setting it are two requests: another client may have come in between, and the card
// takes the chunks of both.
void send(ChannelVariables& card, const Entries& entries) {
  card.writeMap(entries);
  if (card.readMap() != entries) {
    throw Error(fmt::format(
        "the card holds another PID map than was sent: another client is loading channel {} as well",
        channelName(card.channel())));
  }
}

// An unlock without a reply may have been carried out.
void unlock(ChannelVariables& card) {
  try {
    card.lockMap(false);
  } catch (const Error& e) {
    if (!e.gotNoReply()) throw;
    if (card.mapLocked()) card.lockMap(false);
  }
}

// Calls `step`; its Error goes to `failed` as a text.
template <typename Step, typename Failed>
void attempt(const Step& step, const Failed& failed) {
  try {
    step();
  } catch (const Error& e) {
    failed(e.what());
  }
}

// The record and the router must hold the map after the unlock.
void verify(Link& link, const Channel& channel, const Entries& wanted, const MapOptions& options) {
  const PidMap now = readMap(link, channel);
  if (now.locked || !same(now.entries, wanted)) {
    throw Error("the card holds another map: another client has loaded the channel meanwhile");
  }
  std::vector<chassis::RouterWords> router;
  try {
    router = routerMap(link, channel);
  } catch (const Error& e) {
    if (e.gotNoReply()) throw;
    return tell(options, fmt::format("whether the router holds the map was not seen: {}", e.what()));
  }
  if (!holds(router, now.entries)) {
    throw Error("the chassis's router does not hold what the card's record holds");
  }
}

class Replacement {
 public:
  Replacement(Link& link, const Channel& channel, const Entries& wanted, const MapOptions& options)
      : link_(link), card_(link, channel), wanted_(wanted), options_(options), name_(channelName(channel)) {}

  void run() {
    const PidMap before = readMap(link_, card_.channel());
    if (before.locked) refuseLocked();
    before_ = withoutBlanks(before.entries, options_);
    const Rescue rescue(options_.rescueFile, card_.channel(), before_);
    attempt([&] { load(); }, [&](const std::string& cause) { goBack(cause, rescue); });
    attempt([&] { verify(link_, card_.channel(), wanted_, options_); },
            [&](const std::string& cause) { failUnverified(cause); });
    rescue.drop();
  }

 private:
  void load() {
    card_.lockMap(true);
    send(card_, wanted_);
    unlocking_ = true;
    unlock(card_);
  }

  // Throws unless the new map is active anyway.
  void goBack(const std::string& cause, const Rescue& rescue) {
    Entries now;
    attempt(
        [&] {
          if (card_.mapLocked()) {
            unlocking_ = false;
            locked_ = true;
            send(card_, before_);
            locked_ = false;  // the state is no longer certain
            unlock(card_);
          }
          now = card_.readMap();
        },
        [&](const std::string& second) { failStuck(cause, second); });
    if (unlocking_ && same(now, wanted_)) return;
    std::erase_if(now, isBlank);  // because blank entries are also removed from the old map
    if (!same(now, before_)) {
      throw Error(
          fmt::format("{}\nChannel {} holds neither the map that was there nor the new one: "
                      "another client has loaded it meanwhile{}",
                      cause, name_, whereKept()));
    }
    rescue.drop();
    throw Error(
        fmt::format("{}\nNothing was changed: channel {} carries the map that was there", cause, name_));
  }

  std::string whereKept() const {
    if (options_.rescueFile.empty()) return "";
    return fmt::format("\nThe map that was there is kept in {}", options_.rescueFile.string());
  }

  [[noreturn]] void refuseLocked() const {
    const bool kept = !options_.rescueFile.empty() && std::filesystem::exists(options_.rescueFile);
    throw Error(fmt::format(
        "the PID map of {} is locked: another client is loading it, or broke off. When none is at work any "
        "more, 'qamctl pidmap release {}{}' ends the lock{}",
        name_, name_, kept ? " --restore " + options_.rescueFile.string() : "",
        kept ? " with the map that was there" : ""));
  }

  [[noreturn]] void failStuck(const std::string& cause, const std::string& second) const {
    const std::string restore =
        options_.rescueFile.empty() ? "" : " --restore " + options_.rescueFile.string();
    const std::string text = fmt::format(
        "{}\nThe way back failed as well: {}\n"
        "Channel {} {} locked; on the air is the map that was there{}, whole. {}\n"
        "When 'qamctl pidmap show {}' tells that the lock is held, 'qamctl pidmap release {}{}' ends it with "
        "the map that was there",
        cause, second, name_, locked_ ? "is" : "may be", unlocking_ ? " or the new one" : "", whereKept(),
        name_, name_, restore);
    throw Error(text, unlocking_ ? Error::Kind::kUnseen : Error::Kind::kFailed);
  }

  [[noreturn]] void failUnverified(const std::string& cause) const {
    throw Error(
        fmt::format("the new map of {} was sent whole and unlocked, but could not be found in place: {}{}\n"
                    "'qamctl pidmap show {}' tells what the channel carries",
                    name_, cause, whereKept(), name_),
        Error::Kind::kUnseen);
  }

  Link& link_;
  ChannelVariables card_;
  const Entries& wanted_;
  const MapOptions& options_;
  std::string name_;
  Entries before_;
  bool locked_ = false;     // known to be locked
  bool unlocking_ = false;  // the new map may be on the air
};

// What the lock is to be ended with.
Entries mapOfRelease(Link& link, ChannelVariables& card, ReleaseBy by, const Entries& entries,
                     const MapOptions& options) {
  if (by == ReleaseBy::kMap) return withoutBlanks(entries, options);
  if (by == ReleaseBy::kRecord) return withoutBlanks(card.readMap(), options);
  tell(options, "the router knows no programme numbers and types: they become 0");
  try {
    return withoutBlanks(entriesOf(routerMap(link, card.channel())), options);
  } catch (const Error& e) {
    if (e.gotNoReply()) throw;
    throw Error(
        fmt::format("nothing was changed: {}; --restore FILE ends the lock with a map of yours", e.what()));
  }
}

}  // namespace

void checkMap(const Entries& entries, const MapOptions& options) {
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

void replaceMap(Link& link, const Channel& channel, const Entries& entries, const MapOptions& options) {
  checkMap(entries, options);
  Replacement(link, channel, entries, options).run();
}

Entries releaseMap(Link& link, const Channel& channel, ReleaseBy by, const Entries& entries,
                   const MapOptions& options) {
  const std::string name = channelName(channel);
  if (entries.size() > kPidMapSize) {
    throw Error(fmt::format("{} entries are more than the {} of a map", entries.size(), kPidMapSize));
  }
  ChannelVariables card(link, channel);
  if (!card.mapLocked()) {
    throw Error(fmt::format(
        "the PID map of {} is not locked: there is nothing to release, nothing was changed", name));
  }
  Entries wanted = mapOfRelease(link, card, by, entries, options);
  attempt(
      [&] {
        send(card, wanted);
        unlock(card);
      },
      [&](const std::string& cause) {
        throw Error(fmt::format(
            "{}\nChannel {} may be locked still; on the air is the map that was there or the one that was "
            "sent, whole.\n'qamctl pidmap show {}' tells; while the lock is held, the same command can be "
            "given again",
            cause, name, name));
      });
  attempt([&] { verify(link, channel, wanted, options); },
          [&](const std::string& cause) {
            throw Error(
                fmt::format("the lock of {} was ended, but the map could not be found in place: "
                            "{}\n'qamctl pidmap show {}' tells what the channel carries",
                            name, cause, name));
          });
  return wanted;
}

}  // namespace client
