// A slot's start-up. The module's entry point `Qam_Init` is in qamcard/qamcard.h.
#pragma once

#include "platform/types.h"
#include "qamcard/qamcard.h"

extern "C" {

// The slot's start-up, `init` of the descriptor: loads the card's FPGA, then starts the devices connected to
// it. Returns early, with two lines on the panel, if the FPGA does not accept its bitstream. Start-up only,
// in a task.
void QamInit(u8 slotNo);
}
