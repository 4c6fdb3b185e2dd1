// Clock generator CDCE925, programmed through I2C at address 0x64: registers, PLL1, and output Y3. Y1, Y4 and
// Y5 are not connected on the card: they are modelled as on or off. Not modelled: PLL2, the EEPROM.
// Programming the EEPROM is a violation: it needs the input clock held low, and on the card that clock never
// stops. So is the bit that locks it, which cannot be cleared again.
#pragma once

#include <array>

#include "headend/hardware/i2c.h"

namespace headend {

class ClockGenerator final : public I2cSlave {
 public:
  // `input_hz` is the clock at the input pin. The PLL is locked with the power-up values.
  ClockGenerator(double input_hz, Violations& violations);
  void powerUp() override;

  // The card begins to use Y3. Counts what is still wrong then and does not show at Y3: an input that is not
  // set to an external clock, and outputs that are on although nothing is connected to them.
  void takeIntoUse();

  // Control pin S0; an internal pull-up holds it high until it is driven.
  void selectS0(bool level, Nanos now);

  ClockOutput y3(Nanos now) const;

  // A register's value; 0 after the last register.
  u8 reg(u8 index) const { return index < registers_.size() ? registers_[index] : u8{0}; }

 protected:
  bool addressed(u8 addressByte, Nanos now) override;
  bool received(u8 byte, Nanos now) override;
  u8 next(Nanos now) override;
  void accessEnded(bool byStop, Nanos now) override;

 private:
  struct PllWord;
  enum class Expects { kCommand, kCount, kData };

  bool pin(u8 value) const;
  bool poweredDown() const;
  unsigned y1State() const;
  unsigned pairState(u8 field) const;
  bool pllRuns() const;
  bool isSpread() const;
  PllWord pllWord() const;
  ClockOutput pll() const;
  ClockOutput divided() const;

  void write(u8 index, u8 value, Nanos now);
  template <typename Change>
  void change(Nanos now, const Change& apply);

  double input_hz_;
  std::array<u8, 0x30> registers_;
  bool s0_ = true;
  Nanos disturbedAt_;  // last change of the PLL's settings

  Expects expects_;
  bool block_;
  u8 index_;
  unsigned left_;  // data bytes of this transfer still expected
  bool reading_;
  bool countSent_;
};

}  // namespace headend
