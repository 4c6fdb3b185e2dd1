// The variables of a card as objects of its MIB, and the position of every object in the MIB: shared by the
// SNMP agent and the generator of the MIB module. All names are relative to a configurable base.
#pragma once

#include <array>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/types.h"

namespace protocol {

inline constexpr std::size_t kMibBaseLength = 10;  // a card expects its slot after this many components

// Below netSnmpPlaypen of NET-SNMP-MIB, which is for experiments.
inline constexpr std::array<u32, kMibBaseLength> kDefaultMibBase = {1, 3, 6, 1, 4, 1, 8072, 9999, 9999, 27};

// "1.3.6.1.4.1.8072.9999.9999.27"
std::string mibBaseText(std::span<const u32> base);

// Parses a base, which may begin with a dot. Throws std::invalid_argument with the error and the correct
// form.
std::vector<u32> parseMibBase(std::string_view text);

// Below the base. The node of a slot, counted from 0, is kMibFirstSlot + slot.
inline constexpr u32 kMibNotifications = 0;
inline constexpr u32 kMibNotificationObjects = 1;
inline constexpr u32 kMibFirstSlot = 2;
inline constexpr u32 kMibConformance = 10;

// Below kMibNotifications.
inline constexpr u32 kMibAlarmRaised = 1;
inline constexpr u32 kMibAlarmCleared = 2;

// Below kMibNotificationObjects, in their order in a notification.
inline constexpr u32 kMibAlarmSlot = 1;
inline constexpr u32 kMibAlarmPort = 2;
inline constexpr u32 kMibAlarmType = 3;
inline constexpr u32 kMibAlarmEnglish = 4;
inline constexpr u32 kMibAlarmChinese = 5;

// A scalar below the node of each slot; its kind, unit and bounds are those of the card's variable.
struct MibRow {
  std::array<u32, 4> suffix{};
  u32 variable = 0;  // id in cardVariables()
  bool writable = false;
  std::string_view stem;         // of the descriptor, after "slot1"
  std::string_view description;  // sentences; steps and similar data are from the variable
};

// In the order of their names.
std::span<const MibRow> mibRows();

}  // namespace protocol
