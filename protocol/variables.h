// The variables of a card: what each is called, measured in and set to, in one table for everybody who shows
// or sets them (qamctl, the headend's --set, the back end, the SNMP agent and its MIB module). The card
// itself takes what it is given, so the bounds of a setting are kept here.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "base/bytes.h"

namespace protocol {

using base::Bytes;

enum class VariableKind : u8 {
  kNumber,
  kSignedDegrees,  // eight bits of a sensor, to be read as signed: 251 is -5
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
  bool writable = false;  // by the chassis's own clients
  std::string_view name;
  std::string_view unit{};            // of one step of the number; empty for a text and for a choice
  std::array<NamedValue, 3> names{};  // of a choice, as many as it has
  std::string_view meaning{};
  // What a setting can be, and channel 2's copy of one: least, least + step, ... most. Of the others, whose
  // `most` is 0, nothing is known.
  u32 least = 0;
  u32 most = 0;
  u32 step = 1;
  u32 warnStep = 0;  // what is not in these steps from `least` is written with a warning; 0: none
};

// Begins the unit of a number that counts tenths.
inline constexpr std::string_view kTenths = "0.1 ";

// By id, which is the number of the card's menu item. Ids without a value (46, 51) are not among them.
std::span<const CardVariable> cardVariables();

// Null when there is none. A text is an id in decimal or a name.
const CardVariable* findCardVariable(u32 id);
const CardVariable* findCardVariable(std::string_view idOrName);

// Whether the variable can have this value, whoever may write it. False where no bounds are known.
bool isPossible(const CardVariable& variable, std::int64_t value);

// "52000 to 1000000", "950 to 1150 in steps of 5", "0 (off) or 15 (on)"; empty where nothing may be written.
std::string writableValues(const CardVariable& variable);

// What is wrong with writing this value, with the possible ones; empty when it may be written.
std::string valueRefusal(const CardVariable& variable, u32 value);

// What an operator should know of a value that may be written: a symbol rate for which the card's default
// clock table has no row. Empty otherwise.
std::string valueWarning(const CardVariable& variable, u32 value);

// A value to write from its text, decimal digits alone. Throws std::invalid_argument, which says what is
// wrong and what is possible.
u32 parseValue(const CardVariable& variable, std::string_view text);

// A variable as it is read: a number as the card gives it, or a text.
using VariableValue = std::variant<u32, std::string>;

// The data of a reply to kGetVariable: a byte that says which, then a number or a text. Nothing when it is
// neither.
Bytes encodeValue(const VariableValue& value);
std::optional<VariableValue> decodeValue(std::span<const u8> data);

// The degrees Celsius of a sensor's eight bits.
i32 signedDegrees(u32 value);

// For people: "554000 kHz", "1000 (100.0 dBuV)", "5 (64-QAM)", "-5 deg C"; a text as it is.
std::string valueText(const CardVariable& variable, const VariableValue& value);

}  // namespace protocol
