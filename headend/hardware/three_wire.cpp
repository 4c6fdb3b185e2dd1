#include "headend/hardware/three_wire.h"

namespace headend {

void ThreeWire::data(bool level, Nanos now) {
  if (level == data_) return;
  data_ = level;
  dataAt_ = now;
  checkTime(roseAt_, now, timing_.dataHold, "data_hold_short");
}

void ThreeWire::clock(bool level, Nanos now) {
  if (level == clock_) return;
  clock_ = level;
  if (!level) {
    fellAt_ = now;
    checkTime(roseAt_, now, timing_.clockHigh, "clock_high_short");
    return;
  }
  roseAt_ = now;
  checkTime(fellAt_, now, timing_.clockLow, "clock_low_short");
  checkTime(dataAt_, now, timing_.dataSetup, "data_setup_short");
  if (latch_) violation("clock_under_latch");
  shift_ = shift_ << 1 | (data_ ? 1U : 0U);
  ++clocks_;
}

void ThreeWire::latchEnable(bool level, Nanos now) {
  if (!latchConnected_ || level == latch_) return;
  latch_ = level;
  if (!level) {
    checkTime(latchAt_, now, timing_.latchWidth, "latch_short");
    return;
  }
  latchAt_ = now;
  checkTime(roseAt_, now, timing_.clockToLatch, "latch_setup_short");
  if (clocks_ != bits_) violation("wrong_number_of_clocks");
  clocks_ = 0;
  latched(shift_ & ((1U << bits_) - 1), now);
}

}  // namespace headend
