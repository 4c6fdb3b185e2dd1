// The MIB of a chassis with its cards: the position of every object that a card does not register itself
// (ui/qamMibRows.h), and the texts of those that it does. Shared by the SNMP agent and the generator of the
// MIB module. All names are relative to a configurable base.
#pragma once

#include <array>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "ui/qamMibRows.h"

namespace protocol {

// Below netSnmpPlaypen of NET-SNMP-MIB, which is for experiments.
inline constexpr std::array<u32, kMibBaseLength> kDefaultMibBase = {1, 3, 6, 1, 4, 1, 8072, 9999, 9999, 27};

// "1.3.6.1.4.1.8072.9999.9999.27"
std::string mibBaseText(std::span<const u32> base);

// Parses a base, which may begin with a dot. Throws std::invalid_argument with the error and the correct
// form.
std::vector<u32> parseMibBase(std::string_view text);

// Below the base, as kMibFirstSlot.
inline constexpr u32 kMibNotifications = 0;
inline constexpr u32 kMibNotificationObjects = 1;

// Below kMibNotifications.
inline constexpr u32 kMibAlarmRaised = 1;
inline constexpr u32 kMibAlarmCleared = 2;

// Below kMibNotificationObjects, in their order in a notification.
inline constexpr u32 kMibAlarmSlot = 1;
inline constexpr u32 kMibAlarmPort = 2;
inline constexpr u32 kMibAlarmType = 3;
inline constexpr u32 kMibAlarmEnglish = 4;
inline constexpr u32 kMibAlarmChinese = 5;

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
