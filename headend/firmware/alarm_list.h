// The chassis's alarm list: the alarms that stand, and the log of the last events, kept in the flash folder.
// Tasks call it through the services of platform/alarms.h; nothing here takes virtual time.
#pragma once

#include "headend/firmware/alarm_file.h"
#include "protocol/datagram.h"

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

  // `clock` gives seconds since 1970-01-01 UTC. Reads what the flash folder holds.
  AlarmList(Flash& flash, std::function<u32()> clock, std::function<void(const std::string&)> say);

  // Alarms of slots without a card end: nobody is left to do it.
  void endAbsent(const std::vector<int>& slotsWithCard);

  // Nothing happens when one with these texts stands already.
  void add(const Key& key, const Texts& texts);
  // Of several that the key fits it ends the one whose English texts share the most words with `enTrap`, else
  // the oldest.
  void remove(const Key& key, const char* zhTrap, const char* enTrap);
  bool exists(const Key& key) const;

  // Called with each event as it is noted.
  void onEvent(std::function<void(const AlarmRecord&)> hook) { onEvent_ = std::move(hook); }

  // Oldest first; as the events that raised them.
  const std::vector<AlarmRecord>& standing() const { return standing_; }
  const std::deque<AlarmRecord>& history() const { return history_; }
  std::uint64_t events() const { return last_; }  // since the history began
  const AlarmFile& file() const { return file_; }

  // The operations kAlarms and kAlarmEvents.
  u32 answerAlarms(const protocol::Request& request, base::Bytes& reply) const;
  u32 answerEvents(const protocol::Request& request, base::Bytes& reply) const;

 private:
  void note(AlarmRecord event);
  void forgetOldest();
  void end(const AlarmRecord& raised, protocol::AlarmEvent::Kind kind, const char* zhTrap,
           const char* enTrap);

  AlarmFile file_;
  std::function<u32()> clock_;
  std::vector<AlarmRecord> base_;  // what stood before the oldest event of the history
  std::vector<AlarmRecord> standing_;
  std::deque<AlarmRecord> history_;
  std::uint64_t last_ = 0;
  std::function<void(const AlarmRecord&)> onEvent_;
};

// In UTF-8, as clients see it.
protocol::AlarmEvent outward(const AlarmRecord& event);

}  // namespace headend
