// Reads and sets the variables of a card over a link, with refusals as exceptions, for qamctl and the
// headend's own operator; and what such datagrams carry, for the back end too.
#pragma once

#include <optional>
#include <span>
#include <stdexcept>

#include "client/card_variables.h"
#include "client/link.h"

namespace client {

// The chassis or the card refused, or answered something else.
class VariableError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Slots count from 0. Both throw LinkError and VariableError, whose text says what was refused and why. A
// rate takes the card half a second. The bounds of a value are not looked at: valueRefusal does that.
VariableValue getVariable(Link& link, int slot, u32 id);
void setVariable(Link& link, int slot, u32 id, u32 value);

// Data of a set: four bytes. Data of a get's reply: a byte that says which, then a number or a text. Nothing
// where the data is neither.
Bytes encodeNumber(u32 value);
std::optional<u32> decodeNumber(std::span<const u8> data);
Bytes encodeValue(const VariableValue& value);
std::optional<VariableValue> decodeValue(std::span<const u8> data);

}  // namespace client
