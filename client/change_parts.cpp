#include "client/change_parts.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <system_error>
#include <utility>

#include "base/files.h"
#include "client/chassis_services.h"
#include "client/pid_map_file.h"

namespace client {
namespace {

constexpr u32 kCommittingPort = 1;  // after the write of its CAT interval the card saves its record

using Entries = std::vector<MapEntry>;

bool same(Entries a, Entries b) {
  std::ranges::sort(a);
  std::ranges::sort(b);
  return a == b;
}

class MapPart final : public ChangePart {
 public:
  MapPart(Link& link, const ChannelChange& change)
      : ChangePart(link, change, "PID map", change.release ? "" : change.options.mapFile),
        old_(asKept(change.before.map.entries)) {}

  void confirm() override {
    if (change_.release ? readLock() : isOnCard(change_.before.map.entries)) return;
    throw Error(fmt::format(
        "the {} changed after it was read: another client is loading it; try again when it is done", name()));
  }

  void write(Content content) override { card_.writeMap(entriesOf(content)); }

  // Reading the lock and setting it are two requests: another client may have come in between, and the card
  // takes the chunks of both.
  void compare(Content content) override {
    if (card_.readMap() == entriesOf(content)) return;
    throw Error(
        fmt::format("the card holds another PID map than was sent: another client is loading {} as well",
                    ownerName(channel())));
  }

  // The record and the router must hold the map.
  void verify() override {
    if (!isOnCard(*change_.map))
      throw Error("the card holds another map: another client has loaded the channel meanwhile");
    if (!isInRouter(*change_.map))
      throw Error("the chassis's router does not hold what the card's record holds");
  }

 private:
  bool readCardLock() override { return card_.mapLocked(); }
  void writeCardLock(bool on) override { card_.lockMap(on); }

  // A lock empties the record, so a record with entries needs no look at the lock.
  bool isOnCard(const Entries& entries) {
    const auto now = card_.readMap();
    return now && same(*now, entries) && !(entries.empty() && readLock());
  }

  bool isInRouter(const Entries& entries) {
    try {
      return protocol::holds(routerMap(link_, channel()), asKept(entries));
    } catch (const Error& e) {
      if (e.gotNoReply()) throw;
      if (change_.options.note)
        change_.options.note(fmt::format("whether the router holds the map was not seen: {}", e.what()));
      return true;
    }
  }

  const Entries& entriesOf(Content content) const { return content == Content::kNew ? *change_.map : old_; }
  bool holds(Content content) override { return isOnCard(entriesOf(content)); }

  std::string obstacle() const override {
    return change_.release ? "the map that another client began to load is not known" : "";
  }
  Bytes fileContent() const override {
    const std::string text = mapFileText(old_);
    return {text.begin(), text.end()};
  }
  std::string stateText() const override {
    const std::string name = channelName(channel());
    if (lock_ == Lock::kOff)
      return fmt::format("'qamctl pidmap show {}' shows the map that it carries", name);
    return fmt::format(
        "Channel {0} {1} locked; on the air is the old or the new map, whole. 'qamctl pidmap show {0}' shows "
        "both.\n"
        "While it is locked, {2}",
        name, lock_ == Lock::kOn ? "is" : "may be",
        change_.release
            ? "the same command can be given again"
            : fmt::format("'qamctl pidmap release {} --restore {}' ends the lock with the old map", name,
                          fileOr("FILE")));
  }

  Entries old_;
};

class TablesPart final : public ChangePart {
 public:
  TablesPart(Link& link, const ChannelChange& change)
      : ChangePart(link, change, "PSI", change.options.force ? "" : change.options.tablesFile),
        old_(change.before.psi.readable()) {}

  // Counts of the PAT, and of the tables that the change removes or writes.
  void confirm() override {
    if (change_.options.force) return void(readLock());
    std::set<PsiType> types{PAT};
    for (const PsiType type : kAllTables) {
      if (packetsIn(*change_.tables, type) > 0 || change_.before.psi.tables[type].stored > 0)
        types.insert(type);
    }
    checkUnchanged(link_, channel(), change_.before.psi, types);
  }

  // A lock on a locked channel erases nothing: only an unlock and a new lock do. Meanwhile all intervals are
  // 0, so that no part of unfinished tables is sent.
  void lock() override {
    if (written_) {
      stopped_ = true;
      for (const PsiType type : kAllTables) card_.writeInterval(type, 0);
    }
    if (lock_ == Lock::kOn) unlock();
    ChangePart::lock();
  }

  void write(Content content) override {
    const bool isNew = content == Content::kNew;
    written_ = true;
    std::size_t sent = 0;
    for (const TablePackets& table : tablesOf(content)) {
      card_.writeTable(table, [&](std::size_t packets) {
        sent += packets;
        if (isNew && change_.options.progress) change_.options.progress(sent, packetsIn(*change_.tables));
      });
    }
    const Intervals old = oldIntervals();
    for (const auto& [type, ticks] : isNew ? change_.intervals : old) card_.writeInterval(type, ticks);
  }

  // Reading the lock and setting it are two requests: another client may have come in between, and the card
  // takes the chunks of both.
  void compare(Content content) override {
    for (const PsiType type : kAllTables) {
      const std::size_t sent = packetsIn(tablesOf(content), type);
      const std::size_t stored = card_.readInterval(type).packets;
      if (stored == sent) continue;
      mixed_ = true;
      throw Error(fmt::format(
          "the card holds {} packets of {} where {} were sent: another client is loading the same channel",
          stored, tableName(type), sent));
    }
  }

  void verify() override {}  // compared under the lock; the unlock changes no packet

 private:
  bool readCardLock() override { return card_.tablesLocked(); }
  void writeCardLock(bool on) override { card_.lockTables(on); }

  // All that a failure may have changed.
  Intervals oldIntervals() const {
    Intervals old;
    for (const PsiType type : kAllTables) {
      if (stopped_ || change_.intervals.contains(type))
        old[type] = change_.before.psi.tables[type].interval_ticks;
    }
    return old;
  }

  const Tables& tablesOf(Content content) const { return content == Content::kNew ? *change_.tables : old_; }

  // As far as packets can be read.
  bool holds(Content content) override {
    const Tables& tables = tablesOf(content);
    const PsiStore now = readPsi(link_, channel());
    for (const PsiType type : kAllTables) {
      if (content == Content::kOld ? now.tables[type].stored != change_.before.psi.tables[type].stored
                                   : now.tables[type].stored != packetsIn(tables, type))
        return false;
    }
    return std::ranges::all_of(now.readable(), [&](const TablePackets& read) {
      return std::ranges::any_of(tables, [&](const TablePackets& t) {
        return t.type == read.type && t.pid == read.pid && t.packets.size() >= read.packets.size() &&
               std::equal(read.packets.begin(), read.packets.end(), t.packets.begin());
      });
    });
  }

  std::string obstacle() const override {
    if (mixed_) return "another client is loading it too";
    if (change_.before.psi.locked) return "it was locked, so the tables from before are not known";
    const std::size_t lost = change_.before.psi.outOfReach();
    return lost == 0 ? "" : fmt::format("{} of its packets could not be read", lost);
  }
  Bytes fileContent() const override { return transportStream(old_); }
  std::string stateText() const override {
    const std::string name = channelName(channel());
    if (lock_ == Lock::kOff) {
      return fmt::format("'qamctl psi show {}' shows the tables that it sends{}", name,
                         stopped_ ? ", and their intervals, which may be 0" : "");
    }
    std::string options = fileOr("FILE");
    for (const auto& [type, ticks] : oldIntervals())
      options += fmt::format(" --interval {}={}", tableName(type), ticks);
    return fmt::format("Channel {} {} locked and sends no PSI{}: {}", name,
                       lock_ == Lock::kOn ? "is" : "may be", stopped_ ? ", and its intervals may be 0" : "",
                       recoveryHint(channel(), options));
  }

  Tables old_;
  bool mixed_ = false;
  bool written_ = false;
  bool stopped_ = false;
};

// There is no lock; the card saves the intervals of both channels when that of channel 2's CAT is written.
// This write is in the place of the unlock, with the present value if no new one is given.
class IntervalsPart final : public ChangePart {
 public:
  IntervalsPart(Link& link, const ChannelChange& change)
      : ChangePart(link, change, "intervals", {}),
        committing_(link, {.slot = change.before.channel.slot, .port = kCommittingPort}) {}

  void confirm() override {}

  void write(Content content) override {
    for (const auto& [type, ticks] : change_.intervals) {
      const u32 value = content == Content::kNew ? ticks : change_.before.psi.tables[type].interval_ticks;
      if (type == CAT && channel().port == kCommittingPort)
        lastTicks_ = value;
      else
        card_.writeInterval(type, value);
    }
  }

  void verify() override {
    foreign_ = !holds(Content::kNew);
    if (foreign_) throw Error("the card holds other intervals: another client has set them meanwhile");
  }

 private:
  bool readCardLock() override { return true; }
  void writeCardLock(bool on) override {
    const bool known = lastTicks_ || (channel().port == kCommittingPort && change_.intervals.contains(CAT));
    if (!known) lastTicks_ = committing_.readInterval(CAT).ticks;
    if (!on) committing_.writeInterval(CAT, *lastTicks_);
  }
  bool holds(Content) override {
    return std::ranges::all_of(change_.intervals, [&](const auto& interval) {
      return card_.readInterval(interval.first).ticks == interval.second;
    });
  }
  std::string obstacle() const override { return foreign_ ? "another client has set them" : ""; }
  std::string stateText() const override {
    std::string command = "qamctl psi interval " + channelName(channel());
    for (const auto& [type, ticks] : change_.intervals)
      command += fmt::format(" {}={}", tableName(type), change_.before.psi.tables[type].interval_ticks);
    return fmt::format("Intervals of {} may be on the air and not saved: '{}' sets the old ones",
                       ownerName(channel()), command);
  }

  ChannelVariables committing_;
  std::optional<u32> lastTicks_;
  bool foreign_ = false;
};

}  // namespace

std::string ChangePart::name() const {
  return fmt::format("{} of {}", name_, ownerName(channel()));
}

void ChangePart::keep() {
  if (file_.empty()) return;
  const Bytes content = fileContent();
  if (content.empty()) return;
  const auto fail = [&](const std::string& why) {
    throw Error(
        fmt::format("nothing was changed: the {} cannot be kept in {}: {}", name(), file_.string(), why));
  };
  // Created empty first, in case two programs come at the same time.
  std::FILE* claimed = std::fopen(file_.c_str(), "wx");
  if (claimed == nullptr) fail(std::generic_category().message(errno));
  std::fclose(claimed);
  kept_ = true;
  try {
    base::replaceFile(file_, file_.string() + ".part", content);
  } catch (const std::system_error& e) {
    dropFile();
    fail(e.code().message());
  }
}

void ChangePart::dropFile() {
  std::error_code ignored;  // an extra copy does no harm
  if (kept_) std::filesystem::remove(file_, ignored);
  kept_ = false;
}

void ChangePart::lock() {
  touched_ = true;
  if (lock_ != Lock::kOn) setLock(true);
}

void ChangePart::unlock() {
  try {
    setLock(false);
  } catch (const Error& e) {
    if (!e.gotNoReply()) throw;
    if (readLock()) setLock(false);
  }
}

bool ChangePart::readLock() {
  const bool locked = readCardLock();
  lock_ = locked ? Lock::kOn : Lock::kOff;
  return locked;
}

void ChangePart::setLock(bool on) {
  const Lock before = lock_;
  touched_ = true;
  lock_ = Lock::kUnknown;
  try {
    writeCardLock(on);
  } catch (const Error& e) {
    if (!e.gotNoReply()) lock_ = before;
    throw;
  }
  lock_ = on ? Lock::kOn : Lock::kOff;
}

void ChangePart::putBack() {
  const bool locked = readLock();
  const bool lockedBefore = change_.before.psi.locked || change_.before.map.locked;
  if (!locked && !lockedBefore && holds(Content::kOld)) return;
  if (const std::string why = obstacle(); !why.empty()) throw Error(why);
  if (!locked && !holds(Content::kNew)) throw Error("another client has loaded it meanwhile");
  lock();
  write(Content::kOld);
  compare(Content::kOld);
  unlock();
}

std::string ChangePart::rest() const {
  return stateText() + (kept_ ? fmt::format("\nThe old {} is kept in {}", name_, file_.string()) : "");
}

std::vector<std::unique_ptr<ChangePart>> partsOf(Link& link, const ChannelChange& change) {
  std::vector<std::unique_ptr<ChangePart>> parts;
  if (change.map) parts.push_back(std::make_unique<MapPart>(link, change));
  if (change.tables)
    parts.push_back(std::make_unique<TablesPart>(link, change));
  else if (!change.intervals.empty())
    parts.push_back(std::make_unique<IntervalsPart>(link, change));
  return parts;
}

}  // namespace client
