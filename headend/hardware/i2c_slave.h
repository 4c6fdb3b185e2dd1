// The protocol of an I2C slave, UM10204 in fast mode (400 kHz): start, stop, address, acknowledge, and the
// minimum times of a master. Base class of device models; OpenDrainBus passes the line levels to it.
#pragma once

#include <string>

#include "headend/hardware/violations.h"
#include "headend/kernel/kernel.h"
#include "platform/types.h"

namespace headend {

class I2cSlave {
 public:
  I2cSlave(const I2cSlave&) = delete;
  I2cSlave& operator=(const I2cSlave&) = delete;
  virtual ~I2cSlave() = default;

  // The levels on the wire, after each change of either. Both are low at first: the first rise of the lines
  // breaks no rule. A caller that sets both low again must set the clock low first.
  void wire(bool scl, bool sda, Nanos now);
  // Holds SDA low: an acknowledge, or a 0 that the slave sends.
  bool pullsData() const { return pulls_; }
  // False: from now on it does not acknowledge its address and receives nothing.
  void acknowledges(bool does) { acknowledges_ = does; }
  // From the falling clock edge after a ninth bit, of any slave, until the next rising edge.
  bool byteEnded() const { return byteEnded_; }

 protected:
  I2cSlave(std::string name, Violations& violations) : name_(std::move(name)), violations_(violations) {}

  // The 7-bit address and the R/W bit below it. True: acknowledge.
  virtual bool addressed(u8 addressByte, Nanos now) = 0;
  virtual bool received(u8 byte, Nanos now) = 0;  // true: acknowledge
  virtual u8 next(Nanos now) = 0;                 // the next byte to send; called only when it is sent
  virtual void started(Nanos /*now*/) {}
  virtual void stopped(Nanos /*now*/) {}

  // In started() and stopped(): the condition was inside a byte.
  bool inByte() const { return bits_ != 0; }

  // Counts a violation "<name>_<kind>".
  void violation(const char* kind) { violations_.count(name_ + "_" + kind); }

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
  void bit(bool level, Nanos now);
  bool takeByte(Nanos now);
  void afterNinthBit(bool acknowledged, Nanos now);
  void checkEndOfTransfer();
  void checkTime(Nanos since, Nanos now, Nanos least, const char* kind);

  std::string name_;
  Violations& violations_;
  bool acknowledges_ = true;

  bool scl_ = false;
  bool sda_ = false;
  bool pulls_ = false;
  bool byteEnded_ = false;

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

}  // namespace headend
