// The chassis's alarms from outside, and the pages in which they travel: those that stand, and the events
// that its log keeps. docs/management-datagram.md describes the records.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/bytes.h"

namespace protocol {

using base::Bytes;

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

// How a kind is called in JSON and in the languages of the front panel.
struct AlarmEventKind {
  const char* name;
  const char* english;
  const char* chinese;
};
const AlarmEventKind& kindOf(const AlarmEvent& event);

// A page of alarms or events: begun with the number that the next event will have, filled while there is room
// (false: there is none), and read.
Bytes alarmPage(std::uint64_t next);
bool addToPage(Bytes& page, const AlarmEvent& event);
struct AlarmPage {
  std::uint64_t next = 0;
  std::vector<AlarmEvent> events;
};
std::optional<AlarmPage> decodeAlarmPage(std::span<const u8> data);
// The data of a request: the number from which on events are wanted.
std::optional<std::uint64_t> pageFrom(std::span<const u8> request);

}  // namespace protocol
