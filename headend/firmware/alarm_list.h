// The chassis's alarm list: the active alarms, and the log of the last events, stored in the flash folder.
// Tasks call it through the services of platform/alarms.h; no function here takes virtual time.
#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "headend/firmware/back_end.h"
#include "headend/firmware/log.h"
#include "headend/kernel/flash.h"
#include "platform/alarms.h"
#include "protocol/alarms.h"

namespace headend {

// An entry of the file has this layout.
struct AlarmRecord {
  u32 check = 0;             // CRC-32 of the following fields, in the file
  u32 at = 0;                // seconds since 1970-01-01 UTC
  std::uint64_t number = 0;  // from 1, increases by one
  std::uint64_t ends = 0;    // the number of the event that raised the alarm that this event ends
  protocol::AlarmEvent::Kind kind{};
  u8 channel = 0;  // as protocol::Alarm's
  std::array<u8, 6> reserved{};
  chassis::alarm_t alarm{};
};
static_assert(sizeof(AlarmRecord) == 32 + sizeof(chassis::alarm_t));
static_assert(offsetof(AlarmRecord, number) == 8 && offsetof(AlarmRecord, alarm) == 32);

// The history in the flash folder: the last events, after the events that raised the alarms active when the
// history begins. Events are appended, so a forced end of the process loses at most the last event. The file
// is rewritten completely from time to time. Each entry has a checksum.
class AlarmFile {
 public:
  static constexpr std::size_t kMostEntries = 20'000;  // the file is rewritten when it has so many
  static constexpr std::uint64_t kMostNumber = std::uint64_t{1} << 63U;  // of an event; no list gets so far

  // `say` is called with a message if the file has an error.
  AlarmFile(Flash& flash, Say say) : flash_(flash), say_(std::move(say)) {}

  // Returns all readable entries of the file. A damaged file is renamed, and a new file replaces it.
  std::deque<AlarmRecord> load();
  // Saves the last of `events`: appended where that is possible, else with all of them and the events that
  // raised the alarms active before the first.
  void save(const std::vector<AlarmRecord>& before, const std::deque<AlarmRecord>& events);

  bool kept() const { return failure_.empty(); }  // whether the file has all events
  const std::string& failure() const { return failure_; }

 private:
  void rewrite(const std::vector<AlarmRecord>& before, const std::deque<AlarmRecord>& events);
  void failed(const std::string& failure);
  bool putAside(const std::filesystem::path& file);

  Flash& flash_;
  Say say_;
  std::size_t entries_ = 0;
  bool hasFile_ = false;  // the file has all events so far
  bool locked_ = false;   // by a damaged file that cannot be renamed
  std::string failure_;
};

class AlarmList {
 public:
  static constexpr std::size_t kHistory = AlarmFile::kMostEntries / 2;  // events

  struct Key {
    u8 slot;
    u8 port;
    u16 type;
  };
  // GBK and ASCII.
  struct Texts {
    const char* zhTitle;
    const char* zhContent;
    const char* enTitle;
    const char* enContent;
    const char* zhTrap;
    const char* enTrap;
  };

  // `clock` gives seconds since 1970-01-01 UTC. Reads the history from the flash folder.
  AlarmList(Flash& flash, std::function<u32()> clock, Say say);

  // At a power-up, ends the alarms that nothing can end: of slots without a card, and of records that were
  // not kept, because the change in memory is lost.
  void endAtPowerUp(const std::vector<int>& slotsWithCard);
  // After the first status pass of a slot's card: the card reports only changes since its record was saved.
  // Ends the alarms of inputs that have returned while the power was off, and raises those of inputs whose
  // loss the card takes for reported. `lost` has the bits of the channels whose input is lost.
  void matchInputs(int slot, u8 lost);

  // Does nothing if an alarm with these texts is already active.
  void add(const Key& key, const Texts& texts);
  // Raises or ends an alarm of the chassis itself, if it is not so yet. `words` are its content, up to 17
  // bytes in GBK, or what a recovery says. An alarm with another content is ended first.
  void setOwn(int slot, protocol::AlarmType type, bool isRaised, const protocol::Words& words);
  // Ends the oldest alarm of the slot, type and channel.
  void remove(const Key& key, const char* zhTrap, const char* enTrap);
  const AlarmRecord* find(const Key& key) const;  // the oldest with this slot, port and type, or null

  // Called for each event when it is recorded.
  std::function<void(const AlarmRecord&)> onEvent = [](const AlarmRecord&) {};

  // Oldest first, as the events that raised the alarms.
  const std::vector<AlarmRecord>& standing() const { return standing_; }
  const std::deque<AlarmRecord>& history() const { return history_; }
  std::uint64_t events() const { return last_; }  // since the start of the history
  const AlarmFile& file() const { return file_; }

  void provide(BackEnd& backEnd);  // the operations kAlarms and kAlarmEvents

 private:
  void note(AlarmRecord event);
  void forgetOldest();
  void end(const AlarmRecord& raised, protocol::AlarmEvent::Kind kind) {  // with the alarm's own trap texts
    end(raised, kind, raised.alarm.StrZhTrap, raised.alarm.StrEnTrap);
  }
  void end(const AlarmRecord& raised, protocol::AlarmEvent::Kind kind, const char* zhTrap,
           const char* enTrap);

  AlarmFile file_;
  std::function<u32()> clock_;
  std::vector<AlarmRecord> base_;  // alarms active before the oldest event of the history
  std::vector<AlarmRecord> standing_;
  std::deque<AlarmRecord> history_;
  std::uint64_t last_ = 0;
};

// In UTF-8, as clients receive it.
protocol::AlarmEvent outward(const AlarmRecord& event);

}  // namespace headend
