// The MIB of a chassis with its cards: the position of every object that a card does not register itself
// (ui/qamMibRows.h), and the texts of those that it does. Shared by the SNMP agent and the generator of the
// MIB module. All names are relative to a configurable base.
#pragma once

#include <array>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/words.h"
#include "ui/qamMibRows.h"

namespace protocol {

// Below an arc of Net-SNMP's that is for experiments.
inline constexpr std::array<u32, kMibBaseLength> kDefaultMibBase = {1, 3, 6, 1, 4, 1, 8072, 9999, 9999, 27};

// "1.3.6.1.4.1.8072.9999.9999.27"
std::string mibBaseText(std::span<const u32> base);

// Parses a base, which may begin with a dot. Throws std::invalid_argument with the error and the correct
// form.
std::vector<u32> parseMibBase(std::string_view text);

// Below the base, as kMibFirstSlot.
inline constexpr u32 kMibNotifications = 0;
inline constexpr u32 kMibNotificationObjects = 1;
inline constexpr u32 kMibChassis = 11;  // after the slots, and after 10, the conformance of the MIB module

// Below kMibNotifications.
inline constexpr u32 kMibAlarmRaised = 1;
inline constexpr u32 kMibAlarmCleared = 2;

// Below kMibNotificationObjects, in their order in a notification.
inline constexpr u32 kMibAlarmSlot = 1;
inline constexpr u32 kMibAlarmPort = 2;
inline constexpr u32 kMibAlarmType = 3;
inline constexpr u32 kMibAlarmEnglish = 4;
inline constexpr u32 kMibAlarmChinese = 5;
inline constexpr u32 kMibAlarmNumber = 6;
inline constexpr u32 kMibAlarmTime = 7;
inline constexpr u32 kMibAlarmSeverity = 8;
inline constexpr u32 kMibAlarmState = 9;
inline constexpr u32 kMibAlarmEnglishTitle = 10;
inline constexpr u32 kMibAlarmEnglishContent = 11;
inline constexpr u32 kMibAlarmChineseTitle = 12;
inline constexpr u32 kMibAlarmChineseContent = 13;

// Below kMibChassis.
inline constexpr u32 kMibAlarmTable = 1;
inline constexpr u32 kMibCardTable = 2;
inline constexpr u32 kMibSensorTable = 3;
inline constexpr u32 kMibChannelTable = 4;

// The number of a card's state, from 1.
constexpr long mibNumber(CardState state) {
  return static_cast<long>(state) + 1;
}

// The texts of an object in the MIB, in the order of kMibRows; its unit and bounds are those of the card's
// variable.
struct MibText {
  QamVariable variable;
  std::string_view stem;         // of the descriptor, after "slot1"
  std::string_view syntax;       // without bounds
  std::string_view description;  // sentences; steps and similar data are from the variable
};
std::span<const MibText> mibTexts();

}  // namespace protocol
