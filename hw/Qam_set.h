// Applies the card's settings to its hardware: modulator reset, symbol rate, clock generator, output level,
// and the whole record at a slot's start; and measures the rates of the outputs. Called by card/QamInit and
// card/qamVar; tasks only. Nothing here reports an error, and only `Qam_para_set` takes a lock.
#pragma once

#include "card/QamCardPara.h"
#include "platform/types.h"

extern "C" {

// Pulses the modulator's two reset lines, 10 ms each; the output is interrupted.
void Qam_ResetAll(u8 slotNo);

// Applies a whole record, with other tasks locked out (except during waits). The record is only read.
void Qam_para_set(u8 slotNo, QamCardPara* pQam);

// The modulator's symbol rate in kBd, then a reset. Note the order of the arguments. 0 changes nothing.
void symbolrateinfpga(i32 freq, u8 slotNo);

// Sets the attenuator of channel 1 for a level in 0.1 dBuV at the frequency in the slot's record; a caller
// that changes both stores the frequency first. Does nothing for a slot without a record.
void SetRfLevel(u8 slotNo, u16 level);

// Writes six bits into that attenuator, in steps of 0.5 dB; higher bits are lost.
void hrf_set(u8 slotNo, u16 data);

// Total and payload rate of output `Port` (0, 1) in bit/s, measured for half a second while the caller
// sleeps. Another Port takes the same time and changes neither. One caller per slot at a time.
void FpgaGetRate(u8 slotNo, u8 Port, u32* pSysRate, u32* pVldRate);

// Bit/s from bytes per second (Index 1) or transport packets per second (Index 2); 0 for any other Index.
u32 RateConvert(u8 Index, u32 Rate);

// The clock generator's fixed set-up, at a slot's start.
void cdce925_init(u8 slotNo);

// Resets the DAC and loads its thirteen registers from the calibration EEPROM, at a slot's start; the second
// only loads them. The bytes are written as they are read: a blank EEPROM gives 0xFF everywhere.
void Ad9775Init(u8 slotNo);
void Ad9775Set(u8 slotNo);

// Sets the clock for a symbol rate in kBd, from the 17 rows at `pPara`. A rate without a row does not change
// the clock.
void cdce925set(u8 slotNo, u32 freq, cdce925_para* pPara);
}
