// The module's entry point: registration of a card with the chassis, and a slot's start-up. A chassis calls
// `Qam_Init` for each slot with a card of this kind; everything else is called through the descriptor.
#pragma once

#include "platform/types.h"

extern "C" {

// Registers the card of the slot (0..5): descriptor, parameter record, back-end variables. Start-up only.
// Reports nothing if the heap has no room for a descriptor.
void Qam_Init(u8 slotNo);

// The slot's start-up, `init` of the descriptor: loads the card's FPGA, then starts the devices connected to
// it. Returns early, with two lines on the panel, if the FPGA does not accept its bitstream. Start-up only,
// in a task.
void QamInit(u8 slotNo);
}
