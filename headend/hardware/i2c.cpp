#include "headend/hardware/i2c.h"

namespace headend {
namespace {

// UM10204, fast mode, in nanoseconds.
constexpr Nanos kClockLow = 1'300;
constexpr Nanos kClockHigh = 600;
constexpr Nanos kDataSetup = 100;
constexpr Nanos kStartSetup = 600;
constexpr Nanos kStartHold = 600;
constexpr Nanos kStopSetup = 600;
constexpr Nanos kBusFree = 1'300;

constexpr Nanos kStretchTime = 100'000;

}  // namespace

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
  pulls_ = false;
  accessEnded(byStop, now);
  bits_ = 0;
}

void I2cSlave::bit(bool level, Nanos now) {
  if (bits_ == 8) {
    bits_ = 0;
    pulls_ = false;
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

void OpenDrainBus::inject(Fault fault, Nanos now) {
  endStretch(now);
  switch (fault) {
    case Fault::kAbsent:
      slave_ = nullptr;
      holdsClock_ = false;
      break;
    case Fault::kNoAcknowledge:
      if (slave_ != nullptr) slave_->acknowledges(false);
      break;
    case Fault::kClockLow:
    case Fault::kClockHigh:
      stuck_[kClock] = fault == Fault::kClockHigh;
      break;
    case Fault::kDataLow:
    case Fault::kDataHigh:
      stuck_[kData] = fault == Fault::kDataHigh;
      break;
    case Fault::kStretch:
      stretches_ = true;
      break;
  }
  settle(now);
}

// The slave released the clock at that time, also if the bus is looked at later.
void OpenDrainBus::endStretch(Nanos now) {
  if (!holdsClock_ || now < heldUntil_) return;
  holdsClock_ = false;
  settle(heldUntil_);
}

// The slave responds to a change of the wire by a change of what it pulls, which is a change of the wire.
void OpenDrainBus::settle(Nanos now) {
  for (;;) {
    const bool clock = stuck_[kClock].value_or(master_[kClock] && !holdsClock_);
    const bool data = stuck_[kData].value_or(master_[kData] && (slave_ == nullptr || !slave_->pullsData()));
    if (clock == wire_[kClock] && data == wire_[kData]) return;
    const bool fell = wire_[kClock] && !clock;
    wire_ = {clock, data};
    if (slave_ == nullptr) continue;
    slave_->wire(clock, data, now);
    if (stretches_ && fell && slave_->byteEnded()) {
      holdsClock_ = true;
      heldUntil_ = now + kStretchTime;
    }
  }
}

}  // namespace headend
