// The chassis's alarms for clients, and the pages that transfer them: the active ones, and the events of the
// log. docs/management-datagram.md describes the records.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/bytes.h"
#include "protocol/words.h"

namespace protocol {

using base::Bytes;

// The types of a modulator card (ui/qamStatus.cpp), and the chassis's own.
enum AlarmType : u16 {
  kAlarmCardDown = 0x101,
  kAlarmRecordNotKept = 0x102,  // a card's parameter record could not be saved
  kAlarmInputLost = 0x301,
  kAlarmTooHot = 0x302,
  kAlarmRateOverflow = 0x303,
};

// Perceived severity (ITU-T X.733), with the numbers of RFC 3877.
enum class Severity : u8 { kIndeterminate = 2, kCritical = 3, kMajor = 4, kMinor = 5, kWarning = 6 };
Severity severityOf(u16 type);
const char* nameOf(Severity severity);  // "critical"

// Texts are UTF-8. Slots and ports count from 0.
struct Alarm {
  u8 slot = 0;
  u8 port = 0;     // as the card gives it: it gives 0 for lost inputs of both channels
  u8 channel = 0;  // from 1; 0: the alarm is of the whole card
  u16 type = 0;
  u32 happened = 0;                                      // seconds since 1970-01-01 UTC
  std::string zhTitle{}, zhText{}, enTitle{}, enText{};  // shown on the panel
  std::string zhTrap{}, enTrap{};                        // for logs and traps
};

struct AlarmEvent {
  enum class Kind : u8 {
    kRaised = 0,
    kRecovered = 1,
    kRecoveredWithoutAlarm = 2,
    kSlotAbsent = 3,
    kEndedWhileOff = 4,
  };
  std::uint64_t number = 0;  // increases by one per event, also across restarts
  u32 at = 0;                // seconds since 1970-01-01 UTC
  Kind kind = Kind::kRaised;
  Alarm alarm;  // for a recovery: its own trap texts, and the titles of the alarm that it ended
};

// The name of a kind in JSON, and its text.
struct AlarmEventKind {
  const char* name;
  Words words;
};
const AlarmEventKind& kindOf(const AlarmEvent& event);

// A page of alarms or events: starts with the number of the next event; entries are added while there is room
// (false: no room); and it can be read.
Bytes alarmPage(std::uint64_t next);
bool addToPage(Bytes& page, const AlarmEvent& event);
struct AlarmPage {
  std::uint64_t next = 0;
  std::vector<AlarmEvent> events;
};
std::optional<AlarmPage> decodeAlarmPage(std::span<const u8> data);
// The data of a request: the number of the first event wanted.
std::optional<std::uint64_t> pageFrom(std::span<const u8> request);

}  // namespace protocol
