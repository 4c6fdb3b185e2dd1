// The serial port of the digital-to-analog converter AD9775, with four lines and the most significant bit
// first: thirteen registers of gain, offset and modes. The converter itself is not modelled.
//
// Different from the part: bits 7 to 5 of register 0x00 (SDIO direction, bit order, software reset), bit 7 of
// register 0x03 (the data-rate clock at SDO) and read-only bits are stored like other bits and have no
// effect, because a blank EEPROM loads 0xFF. portAtRisk() reports this state.
#pragma once

#include <array>

#include "headend/hardware/device.h"

namespace headend {

class Dac final : public Device {
 public:
  // All lines are low at first, also the chip select.
  Dac(std::string name, Violations& violations);
  void powerUp();

  // The levels at the pins. Reset is active high, chip select active low.
  void reset(bool level, Nanos now);
  void chipSelect(bool level, Nanos now);
  void clock(bool level, Nanos now);
  void dataIn(bool level, Nanos now);

  // SDO. The part drives it only while it sends; otherwise a pull-down on the board makes it 0. So a driver
  // that samples too early or too late does not read the 0xFF of a blank calibration.
  bool dataOut() const { return out_; }

  // A register's value; 0 beyond 0x0C.
  u8 reg(u8 index) const { return index < kRegisters ? registers_[index] : u8{0}; }
  // Whether a real part's port would have another data direction or bit order, be reset, or send a clock.
  bool portAtRisk() const { return (registers_[0] & 0xE0) != 0 || (registers_[3] & 0x80) != 0; }

  // Why no signal comes out; empty if one does.
  std::string fault() const;
  // The card begins to use the output. Counts a calibration that was not loaded: a register not written since
  // the reset.
  void takeIntoUse();

 private:
  static constexpr unsigned kRegisters = 13;

  bool listens() const { return !deselected_ && !reset_; }
  bool frameBegun() const { return instructed_ || bits_ != 0; }
  bool frameComplete() const { return instructed_ && bytesLeft_ == 0; }
  bool sends() const { return instructed_ && reads_ && bytesLeft_ != 0; }
  void beginFrame();
  void checkRise(Nanos now);
  void takeBit();
  void instruct(u8 instruction);
  void endDataByte();
  void sendBit();
  void checkAddress();

  std::array<u8, kRegisters> registers_;
  unsigned written_;  // a bit for each register written since the reset
  bool wasReset_;

  bool reset_ = false;
  bool deselected_ = false;
  bool clock_ = false;
  bool data_ = false;
  bool out_;

  bool instructed_;  // this frame's instruction is complete
  bool reads_;
  unsigned address_;
  unsigned bytesLeft_;  // data bytes, this one included
  unsigned bits_;       // of this byte, bits with a rising clock edge
  u8 shift_;
  u8 sent_;  // the byte being sent

  Nanos resetAt_ = kLongAgo;
  Nanos selectedAt_ = kLongAgo;
  Nanos dataAt_ = kLongAgo;
  Nanos roseAt_ = kLongAgo;
  Nanos fellAt_ = kLongAgo;
};

}  // namespace headend
