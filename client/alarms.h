// The chassis's alarms from outside: those that stand, and the events that its log keeps.
// docs/management-datagram.md describes the records.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "client/link.h"

namespace client {

// Texts are UTF-8. Slots and ports count from 0.
struct Alarm {
  u8 slot = 0;
  u8 port = 0;
  u16 type = 0;
  u32 happened = 0;             // seconds since 1970-01-01 UTC
  std::string zhTitle, zhText;  // what the panel shows
  std::string enTitle, enText;
  std::string zhTrap, enTrap;  // for logs and traps
};

struct AlarmEvent {
  enum class Kind : u8 { kRaised = 0, kRecovered = 1, kRecoveredWithoutAlarm = 2, kSlotAbsent = 3 };
  std::uint64_t number = 0;  // rises by one an event, across restarts
  u32 at = 0;                // seconds since 1970-01-01 UTC
  Kind kind = Kind::kRaised;
  Alarm alarm;  // of a recovery its own trap texts, and the titles of the alarm that it ended
};

// Oldest first. Throw ServiceError or LinkError.
std::vector<Alarm> readAlarms(Link& link);
// The events from this number on that the chassis still keeps.
std::vector<AlarmEvent> readAlarmEvents(Link& link, std::uint64_t from);
// The number that the next event will have.
std::uint64_t nextAlarmEvent(Link& link);

// For the chassis, which answers: a page without records, a record on it (false: no room), and the number
// from which on a request wants them (nothing: it is none).
Bytes alarmPage(std::uint64_t next);
bool addToPage(Bytes& page, const AlarmEvent& event);
std::optional<std::uint64_t> pageFrom(std::span<const u8> request);

}  // namespace client
