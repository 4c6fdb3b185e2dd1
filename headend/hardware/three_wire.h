// The shift register of a device with data, clock and latch enable: bits are shifted in at the rising clock
// edge, most significant first; the latch stores the word. Checks the driver for errors.
#pragma once

#include <optional>
#include <string>

#include "headend/hardware/violations.h"
#include "headend/kernel/kernel.h"
#include "platform/types.h"

namespace headend {

class ThreeWire {
 public:
  // The minimum times in nanoseconds.
  struct Timing {
    Nanos dataSetup, dataHold;  // before and after the rising clock edge
    Nanos clockHigh, clockLow;
    Nanos clockToLatch;  // from the last rising clock edge to the latch
    Nanos latchWidth;
  };

  ThreeWire(std::string name, unsigned bits, const Timing& timing, Violations& violations)
      : name_(std::move(name)), bits_(bits), timing_(timing), violations_(violations) {}

  void data(bool level, Nanos now);
  void clock(bool level, Nanos now);
  // The word stored by the latch, at its rising edge.
  std::optional<u32> latchEnable(bool level, Nanos now);
  // The latch is disconnected.
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
