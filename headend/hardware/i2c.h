// An I2C bus with one slave: the two open-drain lines, and the protocol of the slave, UM10204 in standard
// mode (100 kHz).
#pragma once

#include <array>
#include <optional>

#include "headend/hardware/device.h"

namespace headend {

// Start, stop, address, acknowledge, and the minimum times of a master. Base class of device models.
class I2cSlave : public Device {
 public:
  // The levels on the wire, after each change of either. Both are low at first: the first rise of the lines
  // breaks no rule. A caller that sets both low again must set the clock low first.
  void wire(bool scl, bool sda, Nanos now);
  // Holds SDA low: an acknowledge, or a 0 that the slave sends.
  bool pullsData() const { return pulls_; }
  // False: from now on it does not acknowledge its address and receives nothing.
  void acknowledges(bool does) { acknowledges_ = does; }
  // The master holds SDA low while the clock is high. In the ninth bit of a byte that the master sends, this
  // hides the slave's answer: a violation.
  void masterHoldsData();
  // The part is plugged in, with both lines low: its state is that of power-up.
  void plugIn();
  // From the falling clock edge after a ninth bit, of any slave, until the next rising edge.
  bool byteEnded() const { return byteEnded_; }

 protected:
  using Device::Device;

  // The 7-bit address and the R/W bit below it. True: acknowledge.
  virtual void powerUp() = 0;
  virtual bool addressed(u8 addressByte, Nanos now) = 0;
  virtual bool received(u8 byte, Nanos now) = 0;  // true: acknowledge
  virtual u8 next(Nanos now) = 0;                 // the next byte to send; called only when it is sent
  // A start or a stop condition, which ends the access before it, if there was one.
  virtual void accessEnded(bool byStop, Nanos now) = 0;

  // In accessEnded(): the condition was inside a byte.
  bool inByte() const { return bits_ != 0; }

 private:
  enum class Phase {
    kIdle,
    kAddress,
    kForeign,    // another device is addressed
    kReceiving,  // from the master
    kRefused,    // this slave did not acknowledge: only a stop or a start may follow
    kSending,    // to the master
    kSent,       // the master did not acknowledge: only a stop or a start may follow
  };

  void clockFell(Nanos now);
  void clockRose(Nanos now);
  void dataChanged(bool level, Nanos now);
  void start(Nanos now);
  void stop(Nanos now);
  void endAccess(bool byStop, Nanos now);
  void bit(bool level, Nanos now);
  bool takeByte(Nanos now);
  void afterNinthBit(bool acknowledged, Nanos now);

  bool acknowledges_ = true;

  bool scl_ = false;
  bool sda_ = false;
  bool pulls_ = false;
  bool byteEnded_ = false;
  bool answers_ = false;  // the ninth bit is next, and is the slave's

  Phase phase_ = Phase::kIdle;
  bool firstFall_ = false;  // the start was received, the following falling clock edge was not
  unsigned bits_ = 0;       // of this byte, bits with a falling clock edge
  bool sampled_ = false;    // SDA at the last rising clock edge: a bit only after the falling edge
  u8 shift_ = 0;
  u8 out_ = 0;

  Nanos fellAt_ = kLongAgo;
  Nanos roseAt_ = kLongAgo;
  Nanos dataAt_ = kLongAgo;
  Nanos startAt_ = kLongAgo;
  Nanos stopAt_ = kLongAgo;
};

// Two lines with pull-ups between a master and one slave, which may be absent: a line is low if either device
// pulls it low. Faults of the wires and of the slave are injected here.
class OpenDrainBus {
 public:
  enum Line : std::size_t { kClock, kData };
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

  // Faults accumulate. The end of one leaves the others.
  void inject(Fault fault, bool present, Nanos now);

  // Output of the master: false pulls the line low, true releases it.
  void drive(Line line, bool level, Nanos now) {
    endStretch(now);
    master_[line] = level;
    settle(now);
  }
  // The level on the wire.
  bool level(Line line, Nanos now) {
    endStretch(now);
    return wire_[line];
  }

 private:
  I2cSlave* slave() const { return unplugged_ ? nullptr : slave_; }
  void plug(bool in);
  void stick(Line line, bool level, bool present);
  void endStretch(Nanos now);
  void settle(Nanos now);

  I2cSlave* slave_;
  bool unplugged_ = false;
  std::array<bool, 2> master_{};
  std::array<std::optional<bool>, 2> stuck_{};
  bool stretches_ = false;
  bool holdsClock_ = false;
  Nanos heldUntil_ = 0;
  std::array<bool, 2> wire_{};  // last levels passed to the slave
};

}  // namespace headend
