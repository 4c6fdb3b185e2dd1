// Reads and sets the variables of a card over a link, with refusals as exceptions. For qamctl and for the
// headend's own operator.
#pragma once

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

}  // namespace client
