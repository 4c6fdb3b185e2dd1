// The two temperature sensors (AD7414, address 0x4A, each on its own bus), both on the card. `placeNo`
// selects the sensor; any other number selects none. Start-up calls `ad7414_init`, any task `get_temper`. A
// missing sensor is not detected: an idle data line reads as ones.
#pragma once

#include "platform/types.h"

extern "C" {

// Puts the sensor to sleep: it converts on request. Takes no lock, because it runs at start-up only.
void ad7414_init(u8 slotNo, u8 placeNo);

// One conversion: whole degrees Celsius, 0 to 127, or 192 to 255 for -64 to -1. Other tasks are stopped
// meanwhile, for some milliseconds.
u16 get_temper(u8 slotNo, u8 placeNo);

void ad7414_reg_write(u8 slotNo, u16 addr, u8 data, u8 placeNo);
// Reads `size` bytes, from register `addr`, into `dat`.
void ad7414_reg_read(u8 slotNo, u8* dat, u16 addr, u8 size, u8 placeNo);

// The steps of the bus, as for the clock generator.
void ad7414_start(u8 slotNo, u8 placeNo);
void ad7414_stop(u8 slotNo, u8 placeNo);
void ad7414_sendA(u8 slotNo, u8 WDevice, u8 Address, u8 placeNo);
void ad7414_send(u8 slotNo, u8 data, u8 placeNo);
void ad7414_wack(u8 slotNo, u8 i, u8 placeNo);
u8 ad7414_receive(u8 slotNo, u8 placeNo);
void ad7414_ack(u8 slotNo, u8 i, u8 placeNo);
void WSCL_AD7414(u8 slotNo, u8 i, u8 placeNo);
void WSDA_AD7414(u8 slotNo, u8 i, u8 placeNo);
u8 RSCL_AD7414(u8 slotNo, u8 placeNo);
u8 RSDA_AD7414(u8 slotNo, u8 placeNo);
}
