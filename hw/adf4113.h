// The two local oscillators of the up-converter: integer-N synthesizers (ADF4113) on three-wire buses. The
// first runs at 1090 MHz, the second 1094 MHz above the RF output of channel 1. Called by hw/Qam_set at
// start-up and by card/qamVar; tasks only. Nothing is read back, no range is checked, no lock is taken.
#pragma once

#include "platform/types.h"

extern "C" {

// Sets the second oscillator for an RF output of `rf` kHz, and the oscillator band for it.
void SetFreq(u8 slotNo, u32 rf);

void SetLO1Freq(u8 slotNo);

// Programs synthesizer `addr` (0 first, 1 second oscillator) to `freq` Hz, to the nearest 12.5 kHz. `pre` is
// the prescaler's code (0 to 3: 8/9 to 64/65), `pdp` the polarity of the phase detector. The slot is the last
// argument.
void set_pll(u32 addr, u32 pre, u32 pdp, u32 freq, u8 slotNo);

// Shifts the low `len` bits (1 to 32) of `dat` into the synthesizer's shift register, then pulses its latch
// enable.
void latch_write(u8 slotNo, u32 addr, u32 dat, i32 len);
}
