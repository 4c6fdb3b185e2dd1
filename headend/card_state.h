// The state of a card in its slot, for the report, the panel and everything that needs a card that runs.
#pragma once

#include "headend/firmware/chassis.h"
#include "headend/hardware/fpga_configuration.h"
#include "protocol/card_state.h"

namespace headend {

// `hangs`: a task polls a register of the card in vain.
protocol::CardState cardState(const Chassis::Slot& slot, const FpgaConfiguration& part, bool hangs);

}  // namespace headend
