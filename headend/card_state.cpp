#include "headend/card_state.h"

namespace headend {

protocol::CardState cardState(const Chassis::Slot& slot, const FpgaConfiguration& part, bool hangs) {
  using State = protocol::CardState;
  // A card without a bitstream also hangs, at the first bus whose line it waits for; the missing bitstream is
  // the more useful message.
  if (hangs) return part.attempts() == 0 ? State::kNoBitstream : State::kHung;
  if (!slot.initReturned) return slot.registrationFailed ? State::kNotRegistered : State::kStarting;
  if (slot.descriptor->varPtr == nullptr) return State::kNoRecord;
  if (part.done()) return State::kRunning;
  return part.attempts() == 0 ? State::kNoBitstream : State::kConfigError;
}

}  // namespace headend
