// Temperature sensor AD7414 behind I2C: address pointer, configuration, limits, and a ten-bit temperature,
// updated by a conversion every 800 us, or once on request in power-down. The alert pin is not connected; the
// flags of a limit that was passed are kept until they are read.
#pragma once

#include <array>

#include "headend/hardware/i2c.h"

namespace headend {

class TemperatureSensor final : public I2cSlave {
 public:
  // `address` is the 7-bit address. Power-up is at time 0, at 25 degrees.
  TemperatureSensor(u8 address, std::string name, Violations& violations);
  void powerUp() override;  // at time 0

  // The temperature from `now` on, in degrees Celsius, -55 to 127 (clamped), in steps of a quarter.
  void temperature(double celsius, Nanos now = 0);

 protected:
  bool addressed(u8 addressByte, Nanos now) override;
  bool received(u8 byte, Nanos now) override;
  u8 next(Nanos now) override;
  void accessEnded(bool byStop, Nanos now) override;

 private:
  void configure(u8 value);
  bool sleeps() const;
  void convertUntil(Nanos now);
  void converted();

  u8 address_;
  int measured_quarters_ = 100;  // the ambient temperature
  int value_quarters_;           // the temperature value register

  unsigned flags_;  // of limits that were passed
  u8 pointer_;
  std::array<u8, 4> registers_;  // by pointer; the first, the temperature, is computed

  bool active_;        // this device takes part in the transfer
  unsigned bytes_;     // of this access, after the address
  bool oneShotAsked_;  // by the current access
  bool wakesUp_;       // by the current access
  Nanos oneShotDoneAt_;
  Nanos nextDoneAt_;
};

}  // namespace headend
