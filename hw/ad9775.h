// The serial port of the card's first DAC (AD9775), which outputs the I and Q signals. The second DAC's lines
// of the window are not used. Called by hw/Qam_set at start-up and by the calibration service; tasks only, no
// lock, the processor is not released. Nothing is checked: the port has no acknowledge.
#pragma once

#include "platform/types.h"

inline constexpr u8 kDacRegisters = 13;

// The thirteen registers as stored in the EEPROM and sent in a calibration packet, in this order.
struct AD9775_Para {
  u8 adjset[5];  // registers 0x00 to 0x04: configuration common to I and Q
  u8 I_para[4];  // 0x05 to 0x08: gain and offset of I
  u8 Q_para[4];  // 0x09 to 0x0C: gain and offset of Q
  u8 reserved[3];
};
static_assert(sizeof(AD9775_Para) == 16);

extern "C" {

// A reset pulse; the port idles with chip select and clock high. Writes no register.
void ad9775_init(u8 slotNo);

// Writes `num` bytes from register `addr` on, in one frame; the second reads one register.
void ad9775_reg_write(u8 slotNo, u8 addr, const u8* data, u8 num);
u8 ad9775_reg_read(u8 slotNo, u8 addr);

// Sends a byte to the DAC, most significant bit first: the instruction of a frame, or data; both are sent the
// same way.
void write_ins(u8 slotNo, u8 data);
void write_reg(u8 slotNo, u8 data);

// The pause between two edges: a loop of 100 turns.
void delay1();
}
