// The yardsticks of the instruction counts: loops that make the same register accesses with the same values
// as the module's routines, and do nothing else. Compiled twice: for plain cells, which is what is counted,
// and for the recorded bus of same_accesses.cpp, which holds them against the module.
#pragma once

#include "card/QamFpga.h"
#include "platform/mainboard.h"

// What `qamWritePsi` writes for a packet, of which the header here already has its continuity counter.
void barePsiPacket(Reg16& data, const u8* packet);

// What `cfg_qam_fpga` does with a part that takes the stream at the first attempt.
void bareConfiguration(brdFpgaCfg_t& port, const u8* stream, int size);

// What `CdceRegWrite` does: every change of a line, wait and kick, written out for this one bus.
void bareClockRegisterWrite(Qam_fpga_if& window, u16 reg, u8 data);
