// From the card's settings to its hardware: modulator reset, symbol rate, clock generator, output level, and
// the whole record at a slot's start; and the rates measured at the outputs. Called by card/QamInit and
// card/qamVar; tasks only. Nothing here reports an error or takes a lock but `Qam_para_set`.
#pragma once

#include "card/QamCardPara.h"
#include "platform/types.h"

extern "C" {

// Pulses the modulator's two reset lines, 10 ms each; the output is interrupted.
void Qam_ResetAll(u8 slotNo);

// Applies a whole record, with other tasks held off (but for the waits). The record is read only.
void Qam_para_set(u8 slotNo, QamCardPara* pQam);

// The modulator's symbol rate in kBd, then a reset. Mind the order of the arguments. 0 changes nothing.
void symbolrateinfpga(i32 freq, u8 slotNo);

// The attenuator of channel 1 for a level in 0.1 dBuV at the frequency of the slot's record, which a caller
// who changes both has stored before. Does nothing for a slot without a record.
void SetRfLevel(u8 slotNo, u16 level);

// Six bits into that attenuator, in steps of 0.5 dB; higher bits are lost.
void hrf_set(u8 slotNo, u16 data);

// Total and payload rate of output `Port` (0, 1) in bit/s, measured for half a second in which the caller
// sleeps. Another Port takes the same time and leaves both as they are. One caller a slot at a time.
void FpgaGetRate(u8 slotNo, u8 Port, u32* pSysRate, u32* pVldRate);

// Bit/s from bytes a second (Index 1) or transport packets a second (Index 2); 0 for any other Index.
u32 RateConvert(u8 Index, u32 Rate);

// The clock generator's fixed set-up, at a slot's start.
void cdce925_init(u8 slotNo);

// Resets the DAC and loads its thirteen registers from the calibration EEPROM, at a slot's start; the second
// loads them only. The bytes go over as they are read: a blank EEPROM gives 0xFF everywhere.
void Ad9775Init(u8 slotNo);
void Ad9775Set(u8 slotNo);

// The clock for a symbol rate in kBd, from the 17 rows at `pPara`. A rate without a row leaves the clock as
// it is.
void cdce925set(u8 slotNo, u32 freq, cdce925_para* pPara);
}
