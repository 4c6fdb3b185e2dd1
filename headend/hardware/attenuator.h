// Step attenuator with six bits behind a shift register: 0 to 31.5 dB in steps of 0.5 dB.
#pragma once

#include "headend/hardware/three_wire.h"

namespace headend {

class Attenuator {
 public:
  Attenuator(std::string name, Violations& violations);

  void data(bool level, Nanos now) { lines_.data(level, now); }
  void clock(bool level, Nanos now) { lines_.clock(level, now); }
  void latchEnable(bool level, Nanos now);

  void disconnectLatchEnable() { lines_.disconnectLatchEnable(); }

  // Maximum at power-up.
  double dB() const { return steps_ * 0.5; }

 private:
  ThreeWire lines_;
  unsigned steps_ = 63;
};

}  // namespace headend
