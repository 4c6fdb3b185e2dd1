// The chassis's alarm list: the active alarms, and the log of the last events, stored in the flash folder.
// Tasks call it through the services of platform/alarms.h; no function here takes virtual time.
#pragma once

#include "headend/firmware/alarm_file.h"
#include "headend/firmware/back_end.h"

namespace headend {

class AlarmList {
 public:
  static constexpr std::size_t kHistory = 10'000;  // events

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
  AlarmList(Flash& flash, std::function<u32()> clock, std::function<void(const std::string&)> say);

  // Ends the alarms of slots without a card, because no task there can end them.
  void endAbsent(const std::vector<int>& slotsWithCard);

  // Does nothing if an alarm with these texts is already active.
  void add(const Key& key, const Texts& texts);
  // If the key matches several alarms, ends the one whose English texts share the most words with `enTrap`,
  // or else the oldest.
  void remove(const Key& key, const char* zhTrap, const char* enTrap);
  bool exists(const Key& key) const;

  // Called for each event when it is recorded.
  void onEvent(std::function<void(const AlarmRecord&)> hook) { onEvent_ = std::move(hook); }

  // Oldest first, as the events that raised the alarms.
  const std::vector<AlarmRecord>& standing() const { return standing_; }
  const std::deque<AlarmRecord>& history() const { return history_; }
  std::uint64_t events() const { return last_; }  // since the start of the history
  const AlarmFile& file() const { return file_; }

  void provide(BackEnd& backEnd);  // the operations kAlarms and kAlarmEvents

 private:
  void note(AlarmRecord event);
  void forgetOldest();
  void end(const AlarmRecord& raised, protocol::AlarmEvent::Kind kind, const char* zhTrap,
           const char* enTrap);

  AlarmFile file_;
  std::function<u32()> clock_;
  std::vector<AlarmRecord> base_;  // alarms active before the oldest event of the history
  std::vector<AlarmRecord> standing_;
  std::deque<AlarmRecord> history_;
  std::uint64_t last_ = 0;
  std::function<void(const AlarmRecord&)> onEvent_;
};

// In UTF-8, as clients receive it.
protocol::AlarmEvent outward(const AlarmRecord& event);

}  // namespace headend
