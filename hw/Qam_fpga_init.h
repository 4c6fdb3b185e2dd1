// Loads the card's FPGA, which loses its configuration at power-off: from the flash, bit by bit, through the
// slot's configuration port on the main board. Called once, by the slot's start-up.
#pragma once

#include "platform/types.h"

extern "C" {

// Loads "/tffs0/K717_QAM/qam.bin". -1 if the FPGA did not accept it; 0 otherwise, also if there is nothing to
// load.
int QamfpgaInit(u8 slotNo);

// Sends `dataSize` bytes, most significant bit first, in up to ten attempts. 0 if the FPGA reports that it is
// configured, else 1. A size of 0 or less fails a check and sends no bit; the rest of an attempt is the same.
int cfg_qam_fpga(u8 slotNo, const u8* data, int dataSize);
}
