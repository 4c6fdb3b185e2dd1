// The roof of the module: registration of a card with the chassis, and a slot's start-up. A chassis calls
// `Qam_Init` for each slot in which it finds a card of this kind; all else it reaches through the descriptor.
#pragma once

#include "platform/types.h"

extern "C" {

// Registers the card of the slot (0..5): descriptor, parameter record, back-end variables. Start-up only.
// Says nothing when the heap has no room for a descriptor.
void Qam_Init(u8 slotNo);

// The slot's start-up, `init` of the descriptor: loads the card's FPGA, then brings up what hangs on it.
// Returns early, with two lines on the panel, when the FPGA does not take its bitstream. Start-up only, in a
// task.
void QamInit(u8 slotNo);
}
