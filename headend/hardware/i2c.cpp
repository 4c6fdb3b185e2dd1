#include "headend/hardware/i2c.h"

#include <utility>

namespace headend {
namespace {

// UM10204, standard mode, in nanoseconds.
constexpr Nanos kClockLow = 4'700;
constexpr Nanos kClockHigh = 4'000;
constexpr Nanos kDataSetup = 250;
constexpr Nanos kStartSetup = 4'700;
constexpr Nanos kStartHold = 4'000;
constexpr Nanos kStopSetup = 4'000;
constexpr Nanos kBusFree = 4'700;

constexpr Nanos kStretchTime = 100'000;

}  // namespace

void I2cSlave::plugIn() {
  phase_ = Phase::kIdle;
  scl_ = sda_ = pulls_ = answers_ = byteEnded_ = firstFall_ = false;
  bits_ = 0;
  powerUp();
}

void I2cSlave::masterHoldsData() {
  if (std::exchange(answers_, false)) violation("data_held_low_at_acknowledge");  // counted once
}

void I2cSlave::wire(bool scl, bool sda, Nanos now) {
  if (scl_ && !scl) clockFell(now);
  if (sda != sda_) dataChanged(sda, now);
  if (!scl_ && scl) clockRose(now);
}

// A bit counts once the clock has fallen again: until then it may become a start or a stop.
void I2cSlave::clockFell(Nanos now) {
  scl_ = false;
  fellAt_ = now;
  if (phase_ == Phase::kIdle) return;
  if (firstFall_) {
    firstFall_ = false;
    checkTime(startAt_, now, kStartHold, "start_hold_short");
    return;
  }
  checkTime(roseAt_, now, kClockHigh, "clock_high_short");
  bit(sampled_, now);
}

void I2cSlave::clockRose(Nanos now) {
  scl_ = true;
  roseAt_ = now;
  sampled_ = sda_;
  byteEnded_ = false;
  if (phase_ == Phase::kIdle) return;
  checkTime(fellAt_, now, kClockLow, "clock_low_short");
  checkTime(dataAt_, now, kDataSetup, "data_setup_short");
}

void I2cSlave::dataChanged(bool level, Nanos now) {
  sda_ = level;
  if (!scl_) {
    dataAt_ = now;
  } else if (level) {
    stop(now);
  } else {
    start(now);
  }
}

void I2cSlave::start(Nanos now) {
  if (phase_ == Phase::kIdle) {
    checkTime(stopAt_, now, kBusFree, "bus_free_short");
  } else {
    if (bits_ != 0) violation("start_in_byte");
    checkTime(roseAt_, now, kStartSetup, "start_setup_short");
  }
  startAt_ = now;
  endAccess(false, now);
}

void I2cSlave::stop(Nanos now) {
  if (phase_ == Phase::kIdle) return;  // the first rise of the lines
  if (bits_ != 0) {
    violation("stop_in_byte");
  } else if (phase_ == Phase::kAddress) {
    violation("empty_transfer");
  }
  if (!firstFall_) checkTime(roseAt_, now, kStopSetup, "stop_setup_short");
  stopAt_ = now;
  endAccess(true, now);
}

// A master that reads does not acknowledge the last byte.
void I2cSlave::endAccess(bool byStop, Nanos now) {
  if (phase_ == Phase::kSending && bits_ == 0) violation("read_ended_without_nack");
  phase_ = byStop ? Phase::kIdle : Phase::kAddress;
  firstFall_ = !byStop;
  pulls_ = answers_ = false;
  accessEnded(byStop, now);
  bits_ = 0;
}

void I2cSlave::bit(bool level, Nanos now) {
  if (bits_ == 8) {
    bits_ = 0;
    pulls_ = answers_ = false;
    byteEnded_ = true;
    afterNinthBit(!level, now);
    return;
  }
  const unsigned place = 7 - bits_;
  shift_ = static_cast<u8>(shift_ << 1 | (level ? 1 : 0));
  ++bits_;
  if (phase_ == Phase::kSending && !level && (out_ >> place & 1) != 0)
    violation("data_held_low_while_sending");
  if (phase_ == Phase::kRefused) violation("write_after_nack");
  if (phase_ == Phase::kSent) violation("read_after_nack");
  if (phase_ == Phase::kRefused || phase_ == Phase::kSent) phase_ = Phase::kForeign;  // counted once

  if (bits_ == 8) {
    answers_ = phase_ == Phase::kAddress || phase_ == Phase::kReceiving;
    pulls_ = takeByte(now);
  } else if (phase_ == Phase::kSending) {
    pulls_ = (out_ >> (place - 1) & 1) == 0;
  }
}

// Eight bits have been received. True: acknowledge them.
bool I2cSlave::takeByte(Nanos now) {
  switch (phase_) {
    case Phase::kAddress: {
      const bool mine = acknowledges_ && addressed(shift_, now);
      const bool reads = (shift_ & 1) != 0;
      phase_ = !mine ? Phase::kForeign : reads ? Phase::kSending : Phase::kReceiving;
      return mine;
    }
    case Phase::kReceiving:
      if (received(shift_, now)) return true;
      phase_ = Phase::kRefused;
      return false;
    default:
      return false;
  }
}

void I2cSlave::afterNinthBit(bool acknowledged, Nanos now) {
  if (phase_ != Phase::kSending) return;
  if (!acknowledged) {
    phase_ = Phase::kSent;
    return;
  }
  out_ = next(now);
  pulls_ = (out_ & 0x80) == 0;
}

// ---- The lines ----

void OpenDrainBus::inject(Fault fault, bool present, Nanos now) {
  endStretch(now);
  switch (fault) {
    case Fault::kAbsent:
      plug(!present);
      break;
    case Fault::kNoAcknowledge:
      if (slave_ != nullptr) slave_->acknowledges(!present);
      break;
    case Fault::kClockLow:
    case Fault::kClockHigh:
      stick(kClock, fault == Fault::kClockHigh, present);
      break;
    case Fault::kDataLow:
    case Fault::kDataHigh:
      stick(kData, fault == Fault::kDataHigh, present);
      break;
    case Fault::kStretch:
      stretches_ = present;
      break;
  }
  settle(now);
}

void OpenDrainBus::plug(bool in) {
  if (!in) holdsClock_ = false;
  if (in && unplugged_ && slave_ != nullptr) {
    slave_->plugIn();
    wire_ = {};  // so that the slave is shown the levels
  }
  unplugged_ = !in;
}

void OpenDrainBus::stick(Line line, bool level, bool present) {
  if (present) {
    stuck_[line] = level;
  } else if (stuck_[line] == level) {
    stuck_[line].reset();
  }
}

// The slave released the clock at that time, also if the bus is looked at later.
void OpenDrainBus::endStretch(Nanos now) {
  if (!holdsClock_ || now < heldUntil_) return;
  holdsClock_ = false;
  settle(heldUntil_);
}

// The slave responds to a change of the wire by a change of what it pulls, which is a change of the wire.
void OpenDrainBus::settle(Nanos now) {
  I2cSlave* const slave = this->slave();
  for (;;) {
    const bool clock = stuck_[kClock].value_or(master_[kClock] && !holdsClock_);
    const bool data = stuck_[kData].value_or(master_[kData] && (slave == nullptr || !slave->pullsData()));
    if (slave != nullptr && clock && !master_[kData]) slave->masterHoldsData();
    if (clock == wire_[kClock] && data == wire_[kData]) return;
    const bool fell = wire_[kClock] && !clock;
    wire_ = {clock, data};
    if (slave == nullptr) continue;
    slave->wire(clock, data, now);
    if (stretches_ && fell && slave->byteEnded()) {
      holdsClock_ = true;
      heldUntil_ = now + kStretchTime;
    }
  }
}

}  // namespace headend
