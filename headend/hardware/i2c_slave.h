// The protocol of an I2C slave, UM10204 in fast mode (400 kHz): start, stop, address, acknowledge, and the
// times a master must keep. Device models derive from it; OpenDrainBus tells it the levels on the wire.
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

  // The levels on the wire, after each change of either. Both are low in the beginning: lines that rise for
  // the first time break no rule. Whoever lets both fall again lets the clock fall first.
  void wire(bool scl, bool sda, Nanos now);
  // Holds SDA low: an acknowledge, or a 0 that it sends.
  bool pullsData() const { return pulls_; }
  // False: answers no address from now on and takes nothing.
  void acknowledges(bool does) { acknowledges_ = does; }
  // From the fall of the clock that ends a ninth bit, of whichever slave, until its next rise.
  bool byteEnded() const { return byteEnded_; }

 protected:
  I2cSlave(std::string name, Violations& violations) : name_(std::move(name)), violations_(violations) {}

  // The 7-bit address and the R/W bit below it. True: acknowledge.
  virtual bool addressed(u8 addressByte, Nanos now) = 0;
  virtual bool received(u8 byte, Nanos now) = 0;  // true: acknowledge
  virtual u8 next(Nanos now) = 0;                 // the next byte to send; asked for only when it goes out
  virtual void started(Nanos /*now*/) {}
  virtual void stopped(Nanos /*now*/) {}

  // In started() and stopped(): the condition came inside a byte.
  bool inByte() const { return bits_ != 0; }

  // Counts a violation "<name>_<kind>".
  void violation(const char* kind) { violations_.count(name_ + "_" + kind); }

 private:
  enum class Phase {
    kIdle,
    kAddress,
    kForeign,    // others are meant
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
  bool firstFall_ = false;  // a start has been, the fall of the clock after it has not
  unsigned bits_ = 0;       // of this byte, those whose clock has fallen again
  bool sampled_ = false;    // SDA at the last rise of the clock: a bit only once the clock falls
  u8 shift_ = 0;
  u8 out_ = 0;

  Nanos fellAt_ = kLongAgo;
  Nanos roseAt_ = kLongAgo;
  Nanos dataAt_ = kLongAgo;
  Nanos startAt_ = kLongAgo;
  Nanos stopAt_ = kLongAgo;
};

}  // namespace headend
