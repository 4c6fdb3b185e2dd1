#include "headend/hardware/open_drain_bus.h"

namespace headend {
namespace {

constexpr Nanos kStretchTime = 100'000;

}  // namespace

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
      clockStuck_ = Stuck::kLow;
      break;
    case Fault::kClockHigh:
      clockStuck_ = Stuck::kHigh;
      break;
    case Fault::kDataLow:
      dataStuck_ = Stuck::kLow;
      break;
    case Fault::kDataHigh:
      dataStuck_ = Stuck::kHigh;
      break;
    case Fault::kStretch:
      stretches_ = true;
      break;
  }
  settle(now);
}

void OpenDrainBus::driveClock(bool level, Nanos now) {
  endStretch(now);
  masterClock_ = level;
  settle(now);
}

void OpenDrainBus::driveData(bool level, Nanos now) {
  endStretch(now);
  masterData_ = level;
  settle(now);
}

bool OpenDrainBus::clock(Nanos now) {
  endStretch(now);
  return clock_;
}

bool OpenDrainBus::data(Nanos now) {
  endStretch(now);
  return data_;
}

// The slave let go at its own time, whenever somebody looks.
void OpenDrainBus::endStretch(Nanos now) {
  if (!holdsClock_ || now < heldUntil_) return;
  holdsClock_ = false;
  settle(heldUntil_);
}

// The slave answers a change of the wire by a change of what it pulls, which is a change of the wire.
void OpenDrainBus::settle(Nanos now) {
  for (;;) {
    const bool clock = level(clockStuck_, masterClock_ && !holdsClock_);
    const bool data = level(dataStuck_, masterData_ && (slave_ == nullptr || !slave_->pullsData()));
    if (clock == clock_ && data == data_) return;
    const bool fell = clock_ && !clock;
    clock_ = clock;
    data_ = data;
    if (slave_ == nullptr) continue;
    slave_->wire(clock, data, now);
    if (stretches_ && fell && slave_->byteEnded()) {
      holdsClock_ = true;
      heldUntil_ = now + kStretchTime;
    }
  }
}

}  // namespace headend
