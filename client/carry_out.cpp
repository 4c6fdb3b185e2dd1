#include "client/carry_out.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <system_error>
#include <utility>

#include "base/files.h"
#include "client/chassis_services.h"
#include "client/pid_map.h"

namespace client {
namespace {

using Entries = std::vector<MapEntry>;

enum class Content { kOld, kNew };

// A part of a channel that a change replaces: PID map, tables or intervals. Each has the same steps, in this
// order: keep, confirm, lock, write, compare, unlock, verify; after a failure putBack. All throw Error.
class Part {
 public:
  Part(Link& link, const ChannelChange& change, const char* name, u16 lockVariable,
       std::filesystem::path rescueFile)
      : name_(fmt::format("{} of {}", name, ownerName(change.before.channel))),
        link_(link),
        change_(change),
        card_(link, change.before.channel),
        lockVariable_(lockVariable),
        file_(std::move(rescueFile)) {}
  virtual ~Part() = default;

  // Writes the old content to the rescue file, if there is to be one.
  void keep() {
    const Bytes content = file_.empty() ? Bytes() : fileContent();
    if (content.empty()) return;
    const auto refuse = [&](int error) {
      fail("nothing was changed: the {} cannot be kept in {}: {}", name_, file_.string(),
           std::generic_category().message(error));
    };
    // Created empty first, in case two programs come at the same time.
    std::FILE* claimed = std::fopen(file_.c_str(), "wx");
    if (claimed == nullptr) refuse(errno);
    std::fclose(claimed);
    kept_ = true;
    try {
      base::replaceFile(file_, file_.string() + ".part", content);
    } catch (const std::system_error& e) {
      dropFile();
      refuse(e.code().value());
    }
  }
  void dropFile() {
    std::error_code ignored;  // an extra copy does no harm
    if (kept_) std::filesystem::remove(file_, ignored);
    kept_ = false;
  }
  virtual void confirm() = 0;  // still as it was read, and not locked
  virtual void lock() {
    touched_ = true;
    if (lock_ != Lock::kOn) setLock(true);
  }
  virtual void write(Content content) = 0;
  virtual void compare(Content) {}  // with what the card holds; before the unlock
  // Also if the reply is lost.
  void unlock() {
    try {
      setLock(false);
    } catch (const Error& e) {
      if (!e.gotNoReply()) throw;
      if (readLock()) setLock(false);
    }
  }
  virtual void verify() = 0;  // the new content is in place
  // The line of a message that ends in the old content, or in what is known of the part; empty if the lock
  // was never tried. Does not overwrite what another client has loaded.
  std::string putBack() {
    std::string text;
    if (touched_) {
      try {
        restore();
        text = fmt::format("\nThe old {} is in place.", name_);
      } catch (const Error& e) {
        text = fmt::format("\nThe old {} could not be put back: {}\n{}", name_, e.what(), stateText());
        return kept_ ? fmt::format("{}\nThe old {} is kept in {}", text, name_, file_.string()) : text;
      }
    }
    dropFile();
    return text;
  }

 protected:
  enum class Lock { kOff, kOn, kUnknown };

  virtual bool readCardLock() { return card_.readLock(lockVariable_); }
  virtual void writeCardLock(bool on) { card_.writeLock(lockVariable_, on); }
  virtual bool holds(Content content) = 0;             // of an unlocked channel
  virtual std::string obstacle() const { return ""; }  // why the old content cannot be put back
  virtual Bytes fileContent() const { return {}; }
  virtual std::string stateText() const = 0;  // of the channel, and the commands that mend it

  bool readLock() {
    const bool locked = readCardLock();
    lock_ = locked ? Lock::kOn : Lock::kOff;
    return locked;
  }
  void setLock(bool on) {
    const Lock before = std::exchange(lock_, Lock::kUnknown);
    touched_ = true;
    try {
      writeCardLock(on);
    } catch (const Error& e) {
      if (!e.gotNoReply()) lock_ = before;
      throw;
    }
    lock_ = on ? Lock::kOn : Lock::kOff;
  }
  const Channel& channel() const { return change_.before.channel; }
  std::string fileOr(const char* other) const { return kept_ ? file_.string() : other; }

  std::string name_;  // "PID map of channel 1.2"
  Link& link_;
  const ChannelChange& change_;
  ChannelVariables card_;
  Lock lock_ = Lock::kOff;

 private:
  void restore() {
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

  u16 lockVariable_;
  std::filesystem::path file_;
  bool kept_ = false;
  bool touched_ = false;
};

class MapPart final : public Part {
 public:
  MapPart(Link& link, const ChannelChange& change)
      : Part(link, change, "PID map", kPidMapLock, change.release ? "" : change.options.mapFile),
        old_(asKept(change.before.map.entries)) {}

  void confirm() override {
    if (change_.release ? readLock() : isOnCard(change_.before.map.entries)) return;
    fail("the {} changed after it was read: another client is loading it; try again when it is done", name_);
  }

  void write(Content content) override { card_.writeMap(entriesOf(content)); }

  // Reading the lock and setting it are two requests: another client may have come in between, and the card
  // takes the chunks of both.
  void compare(Content content) override {
    if (card_.readMap() == entriesOf(content)) return;
    fail("the card holds another PID map than was sent: another client is loading {} as well",
         ownerName(channel()));
  }

  // The record and the router must hold the map.
  void verify() override {
    if (!isOnCard(*change_.map))
      fail("the card holds another map: another client has loaded the channel meanwhile");
    if (!isInRouter(*change_.map)) fail("the chassis's router does not hold what the card's record holds");
  }

 private:
  // A lock empties the record, so a record with entries needs no look at the lock.
  bool isOnCard(const Entries& entries) {
    const auto now = card_.readMap();
    return now && std::ranges::is_permutation(*now, entries) && !(entries.empty() && readLock());
  }

  bool isInRouter(const Entries& entries) {
    try {
      return protocol::holds(routerMap(link_, channel()), asKept(entries));
    } catch (const Error& e) {
      if (e.gotNoReply()) throw;
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

class TablesPart final : public Part {
 public:
  TablesPart(Link& link, const ChannelChange& change)
      : Part(link, change, "PSI", kPsiLock, change.options.force ? "" : change.options.tablesFile),
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
    Part::lock();
  }

  void write(Content content) override {
    const bool isNew = content == Content::kNew;
    written_ = true;
    std::size_t sent = 0;
    for (const TablePackets& table : tablesOf(content)) {
      card_.writeTable(table, [&](std::size_t packets) {
        sent += packets;
        if (isNew) change_.options.progress(sent, packetsIn(*change_.tables));
      });
    }
    for (const auto& [type, ticks] : isNew ? change_.intervals : oldIntervals())
      card_.writeInterval(type, ticks);
  }

  // Needed for the same reason as that of the map.
  void compare(Content content) override {
    for (const PsiType type : kAllTables) {
      const std::size_t sent = packetsIn(tablesOf(content), type);
      const std::size_t stored = card_.readInterval(type).packets;
      if (stored == sent) continue;
      mixed_ = true;
      fail("the card holds {} packets of {} where {} were sent: another client is loading the same channel",
           stored, tableName(type), sent);
    }
  }

  void verify() override {}  // compared under the lock; the unlock changes no packet

 private:
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
      const std::size_t stored =
          content == Content::kOld ? change_.before.psi.tables[type].stored : packetsIn(tables, type);
      if (now.tables[type].stored != stored) return false;
    }
    return std::ranges::all_of(now.readable(), [&](const TablePackets& read) {
      return std::ranges::any_of(tables, [&](const TablePackets& t) {
        return t.type == read.type && t.pid == read.pid &&
               std::ranges::mismatch(read.packets, t.packets).in1 == read.packets.end();
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
class IntervalsPart final : public Part {
 public:
  IntervalsPart(Link& link, const ChannelChange& change)
      : Part(link, change, "intervals", 0, {}),
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
    if (foreign_) fail("the card holds other intervals: another client has set them meanwhile");
  }

 private:
  static constexpr u32 kCommittingPort = 1;

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

void carryOut(Link& link, const ChannelChange& change) {
  std::vector<std::unique_ptr<Part>> parts;  // in the order in which they are locked and unlocked
  if (change.map) parts.push_back(std::make_unique<MapPart>(link, change));
  if (change.tables)
    parts.push_back(std::make_unique<TablesPart>(link, change));
  else if (!change.intervals.empty())
    parts.push_back(std::make_unique<IntervalsPart>(link, change));
  const auto dropFiles = [&] { std::ranges::for_each(parts, [](const auto& part) { part->dropFile(); }); };

  try {
    for (const auto& part : parts) part->keep();
    for (const auto& part : parts) part->confirm();
  } catch (const Error&) {
    dropFiles();
    throw;
  }
  try {
    for (const auto& part : parts) {
      part->lock();
      part->write(Content::kNew);
    }
    for (const auto& part : parts) {
      part->compare(Content::kNew);
      part->unlock();
      part->verify();
    }
  } catch (const Error& e) {
    // The parts are independent: if one cannot be put back, the others still are.
    std::string text = e.what();
    for (const auto& part : parts) text += part->putBack();
    throw Error(text);
  }
  dropFiles();
}

}  // namespace client
