// The variables of a card: name, unit and range of each, in one table for all programs that show or set them
// (qamctl, the headend's --set, the back end, the SNMP agent and its MIB module).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "base/bytes.h"
#include "card/qamVariables.h"

namespace protocol {

using base::Bytes;

enum class VariableKind : u8 {
  kNumber,
  kSignedDegrees,  // eight bits of a sensor, read as signed: 251 is -5
  kText,
};

struct CardVariable {
  struct NamedValue {
    u32 value = 0;
    std::string_view name;
    bool operator==(const NamedValue&) const = default;
  };

  u32 id = 0;
  VariableKind kind = VariableKind::kNumber;
  bool writable = false;  // by the chassis's clients
  std::string_view name;
  std::string_view unit{};            // of one step of the number; empty for a text and for a choice
  std::array<NamedValue, 3> names{};  // of a choice
  std::string_view meaning{};
  // The possible values of a setting, and of channel 2's copy of one: least, least + step, ... most. For
  // other variables both bounds are 0, which means unknown.
  QamBounds bounds{};
  u32 step = 1;
  u32 warnStep = 0;  // values not in these steps from the lower bound are written with a warning; 0: none
};

// Start of the unit of a number that counts tenths.
inline constexpr std::string_view kTenths = "0.1 ";

// By id, which is the number of the card's menu item. Ids without a value (46, 51) are not included.
std::span<const CardVariable> cardVariables();

// Null if unknown. A text is an id in decimal or a name.
const CardVariable* findCardVariable(u32 id);
const CardVariable* findCardVariable(std::string_view idOrName);
// Null also if the variables of this type of card are not known.
const CardVariable* findCardVariable(u8 cardType, u32 id);

// Whether the variable can have this value, for any writer. False if no bounds are known.
bool isPossible(const CardVariable& variable, std::int64_t value);

// "52000 to 1000000", "950 to 1150 in steps of 5", "0 (off) or 15 (on)"; empty if it is not writable.
std::string writableValues(const CardVariable& variable);

// A warning about a value that may be written: a symbol rate without a row in the card's default clock table.
// Empty otherwise.
std::string valueWarning(const CardVariable& variable, u32 value);

// Parses a value to write, decimal digits only. Throws std::invalid_argument with the error and the possible
// values.
u32 parseValue(const CardVariable& variable, std::string_view text);

// A variable as read: a number as the card gives it, or a text.
using VariableValue = std::variant<u32, std::string>;

// The data of a reply to kGetVariable: a type byte, then a number or a text. nullopt if it is not valid.
Bytes encodeValue(const VariableValue& value);
std::optional<VariableValue> decodeValue(std::span<const u8> data);

// The degrees Celsius of a sensor's eight bits.
i32 signedDegrees(u32 value);

// For users: "554000 kHz", "1000 (100.0 dBuV)", "5 (64-QAM)", "-5 deg C"; a text unchanged.
std::string valueText(const CardVariable& variable, const VariableValue& value);

}  // namespace protocol
