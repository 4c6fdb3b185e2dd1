// Two open-drain lines with pull-ups between a master and one slave, which may be absent: a line is low if
// either device pulls it low. Faults of the wires and of the slave are injected here.
#pragma once

#include "headend/hardware/i2c_slave.h"

namespace headend {

class OpenDrainBus {
 public:
  enum class Fault {
    kAbsent,         // there is no slave
    kNoAcknowledge,  // the slave does not acknowledge its address
    kClockLow,       // a line is stuck, for master and slave alike
    kClockHigh,
    kDataLow,
    kDataHigh,
    kStretch,  // the slave holds the clock low for 100 us from the end of each ninth bit
  };

  // `slave` may be null: absent. At first the master pulls both lines low.
  explicit OpenDrainBus(I2cSlave* slave) : slave_(slave) {}

  // Faults accumulate and stay.
  void inject(Fault fault, Nanos now);

  // Output of the master: false pulls the line low, true releases it.
  void driveClock(bool level, Nanos now);
  void driveData(bool level, Nanos now);

  // The levels on the wire.
  bool clock(Nanos now);
  bool data(Nanos now);

 private:
  enum class Stuck { kNo, kLow, kHigh };

  static bool level(Stuck stuck, bool released) {
    return stuck == Stuck::kNo ? released : stuck == Stuck::kHigh;
  }
  void endStretch(Nanos now);
  void settle(Nanos now);

  I2cSlave* slave_;
  bool masterClock_ = false;
  bool masterData_ = false;
  Stuck clockStuck_ = Stuck::kNo;
  Stuck dataStuck_ = Stuck::kNo;
  bool stretches_ = false;
  bool holdsClock_ = false;
  Nanos heldUntil_ = 0;
  bool clock_ = false;  // last level passed to the slave
  bool data_ = false;
};

}  // namespace headend
