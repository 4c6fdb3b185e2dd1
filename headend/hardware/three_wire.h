// The shift register of a device with data, clock and latch enable: bits enter at the rise of the clock, most
// significant first, the latch takes the word. Checks what a driver may get wrong.
#pragma once

#include <optional>
#include <string>

#include "headend/hardware/violations.h"
#include "headend/kernel/kernel.h"
#include "platform/types.h"

namespace headend {

class ThreeWire {
 public:
  // The least times in nanoseconds.
  struct Timing {
    Nanos dataSetup, dataHold;  // before and after the rise of the clock
    Nanos clockHigh, clockLow;
    Nanos clockToLatch;  // from the last rise of the clock to the latch
    Nanos latchWidth;
  };

  ThreeWire(std::string name, unsigned bits, const Timing& timing, Violations& violations)
      : name_(std::move(name)), bits_(bits), timing_(timing), violations_(violations) {}

  void data(bool level, Nanos now);
  void clock(bool level, Nanos now);
  // The word that the latch takes, at its rise.
  std::optional<u32> latchEnable(bool level, Nanos now);
  // The latch hears nothing any more.
  void disconnectLatchEnable() { latchConnected_ = false; }

  // Counts a violation "<name>_<kind>".
  void violation(const char* kind) { violations_.count(name_ + "_" + kind); }

 private:
  void checkTime(Nanos since, Nanos now, Nanos least, const char* kind);

  std::string name_;
  unsigned bits_;
  Timing timing_;
  Violations& violations_;

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

}  // namespace headend
