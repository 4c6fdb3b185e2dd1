// The calibration EEPROM (24C16: 2048 bytes in pages of 16 and blocks of 256) on its own I2C bus. Called by
// the DAC's set-up at start-up and by the calibration service; tasks only, no lock. Nothing reports an error:
// a missing device reads as 0xFF, like an idle line. Byte addresses from 0x800 on are refused.
//
// A device in its write cycle does not acknowledge for up to 10 ms. Every write here returns only after the
// device acknowledges again, or after about 37 ms.
#pragma once

#include "platform/types.h"

extern "C" {

void at24cxx_wr_byte(u16 addr, u8 data, u8 slotNo);
u8 at24cxx_rd_byte(u16 addr, u8 slotNo);                      // 0xFF for an address that does not exist
void at24cxx_wr_page(u8 page_no, const u8* data, u8 slotNo);  // 16 bytes; pages 0 to 0x7F
// `count` bytes, split at pages and blocks. Bytes beyond the last address are not written, and a read leaves
// them as they are; one that begins beyond it reads 0xFF throughout.
void at24cxx_wr_nbytes(u16 addr, const u8* data, u16 count, u8 slotNo);
void at24cxx_rd_nbytes(u16 addr, u8* data, u16 count, u8 slotNo);

// One transfer: `device` is the address byte for writing. Always returns 0.
int i2c_wr(u8 device, u8 address, const u8* data, u16 size, u8 slotNo);
int i2c_rd(u8 device, u8 address, u8* data, u16 size, u8 slotNo);

// The steps of the bus.
void x24c16_start(u8 slotNo);
void x24c16_stop(u8 slotNo);
void x24c16_sendA(u8 slotNo, u8 device, u8 address);
void x24c16_send(u8 slotNo, u8 byte);
void x24c16_wack(u8 slotNo, u8 wait);
u8 x24c16_receive(u8 slotNo);
void x24c16_ack(u8 slotNo, u8 ack);
void WSDA_X24C16(u8 slotNo, u8 v);
void WSCL_X24C16(u8 slotNo, u8 v);
u8 RSDA_X24C16(u8 slotNo);
u8 RSCL_X24C16(u8 slotNo);
}
