// What the agent sends to a receiver of notifications: an event of the alarm list, or one of the
// notifications that every agent has (SNMPv2-MIB).
#pragma once

#include <optional>
#include <span>

#include "headend/firmware/alarm_list.h"

struct snmp_pdu;

namespace headend {

struct Notification {
  enum class Standard : u8 { kColdStart = 1, kAuthenticationFailure = 5 };  // below snmpTraps

  Standard standard = Standard::kColdStart;
  std::optional<AlarmRecord> alarm{};  // if it has one, it is no standard one
  Nanos at = 0;                        // virtual time
};

// The message (RFC 3416, section 4.2.6), which the caller frees or passes on. `base` is that of the MIB.
snmp_pdu* messageOf(const Notification& notification, std::span<const u32> base, bool isInform);

// UTC, as DateAndTime of SNMPv2-TC. `at` is in seconds since 1970-01-01.
std::string dateAndTime(u32 at);

// Hundredths of a second, as TimeTicks, which wrap after 497 days.
inline long timeTicks(Nanos time) {
  return static_cast<u32>(time / (kSecond / 100));
}

}  // namespace headend
