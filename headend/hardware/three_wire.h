// Devices with data, clock and latch enable: a shift register takes bits at the rising clock edge, most
// significant first; the latch stores the word. Checks the driver for errors.
#pragma once

#include "headend/hardware/device.h"

namespace headend {

class ThreeWire : public Device {
 public:
  void data(bool level, Nanos now);
  void clock(bool level, Nanos now);
  void latchEnable(bool level, Nanos now);
  void connectLatchEnable(bool isConnected) { latchConnected_ = isConnected; }

 protected:
  // The minimum times in nanoseconds.
  struct Timing {
    Nanos dataSetup, dataHold;  // before and after the rising clock edge
    Nanos clockHigh, clockLow;
    Nanos clockToLatch;  // from the last rising clock edge to the latch
    Nanos latchWidth;
  };

  ThreeWire(std::string name, unsigned bits, const Timing& timing, Violations& violations)
      : Device(std::move(name), violations), bits_(bits), timing_(timing) {}

  // The word stored by the latch, at its rising edge.
  virtual void latched(u32 word, Nanos now) = 0;

 private:
  unsigned bits_;
  Timing timing_;

  bool latchConnected_ = true;
  bool data_ = false;
  bool clock_ = false;
  bool latch_ = false;
  u32 shift_ = 0;
  unsigned clocks_ = 0;  // since the last latch

  Nanos dataAt_ = kLongAgo;
  Nanos roseAt_ = kLongAgo;
  Nanos fellAt_ = kLongAgo;
  Nanos latchAt_ = kLongAgo;
};

// Step attenuator with six bits: 0 to 31.5 dB in steps of 0.5 dB. The times are those of the slowest of the
// usual six-bit parts.
class Attenuator final : public ThreeWire {
 public:
  Attenuator(std::string name, Violations& violations)
      : ThreeWire(std::move(name), 6,
                  {.dataSetup = 10,
                   .dataHold = 10,
                   .clockHigh = 30,
                   .clockLow = 30,
                   .clockToLatch = 10,
                   .latchWidth = 30},
                  violations) {
    powerUp();
  }
  void powerUp() { steps_ = 63; }  // the maximum

  double dB() const { return steps_ * 0.5; }

 private:
  void latched(u32 word, Nanos /*now*/) override { steps_ = word; }

  unsigned steps_;
};

}  // namespace headend
