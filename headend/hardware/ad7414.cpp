#include "headend/hardware/ad7414.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace headend {
namespace {

enum SensorRegister : u8 { kTemperature = 0, kConfiguration = 1, kHigh = 2, kLow = 3 };

// Configuration.
constexpr u8 kSensorOff = 0x80;
constexpr u8 kAlertReset = 0x08;
constexpr u8 kOneShot = 0x04;
constexpr u8 kSensorTestModes = 0x03;

// In the second byte of the temperature.
constexpr u8 kAlertFlag = 0x20;
constexpr u8 kHighFlag = 0x10;
constexpr u8 kLowFlag = 0x08;

constexpr Nanos kWakeUp = 4'000;
constexpr Nanos kConversion = 25'000;
constexpr Nanos kUpdate = 800'000;

constexpr double kMin_celsius = -55;
constexpr double kMax_celsius = 127;

}  // namespace

TemperatureSensor::TemperatureSensor(u8 address, std::string name, Violations& violations)
    : I2cSlave(std::move(name), violations), address_(address) {
  powerUp();
}

void TemperatureSensor::powerUp() {
  value_quarters_ = 0;
  flags_ = 0;
  pointer_ = 0;
  registers_ = {0, 0x40, 0x7F, 0x80};
  active_ = oneShotAsked_ = wakesUp_ = false;
  bytes_ = 0;
  oneShotDoneAt_ = kNever;
  nextDoneAt_ = kWakeUp + kConversion;
}

void TemperatureSensor::temperature(double celsius, Nanos now) {
  convertUntil(now);
  measured_quarters_ = static_cast<int>(std::lround(std::clamp(celsius, kMin_celsius, kMax_celsius) * 4));
}

bool TemperatureSensor::sleeps() const {
  return (registers_[kConfiguration] & kSensorOff) != 0;
}

// A conversion that ends while the device takes part in a transfer is lost, so that no mixture is read.
void TemperatureSensor::convertUntil(Nanos now) {
  const bool isDone = std::min(oneShotDoneAt_, nextDoneAt_) <= now;
  if (oneShotDoneAt_ <= now) oneShotDoneAt_ = kNever;
  if (nextDoneAt_ <= now) nextDoneAt_ += (1 + (now - nextDoneAt_) / kUpdate) * kUpdate;
  if (isDone && !active_) converted();
}

void TemperatureSensor::converted() {
  value_quarters_ = measured_quarters_;
  if (value_quarters_ > 4 * static_cast<std::int8_t>(registers_[kHigh])) flags_ |= kHighFlag | kAlertFlag;
  if (value_quarters_ < 4 * static_cast<std::int8_t>(registers_[kLow])) flags_ |= kLowFlag | kAlertFlag;
}

bool TemperatureSensor::addressed(u8 addressByte, Nanos now) {
  if (addressByte >> 1 != address_) return false;
  convertUntil(now);
  active_ = true;
  bytes_ = 0;
  return true;
}

// The pointer, and at most one byte for the register to which it points.
bool TemperatureSensor::received(u8 byte, Nanos /*now*/) {
  ++bytes_;
  if (bytes_ == 1) {
    if (byte > kLow) violation("no_such_register");
    pointer_ = byte & 3;
    return true;
  }
  if (bytes_ > 2) {
    violation("write_past_end");
    return false;
  }
  if (pointer_ == kTemperature) {
    violation("write_to_read_only");
    return false;
  }
  if (pointer_ == kConfiguration)
    configure(byte);
  else
    registers_[pointer_] = byte;
  return true;
}

// The effects of a write begin when the access is over.
void TemperatureSensor::configure(u8 value) {
  if ((value & kSensorTestModes) != 0) violation("test_mode");
  if ((value & kOneShot) != 0) {
    if (!sleeps() && (value & kSensorOff) == 0) violation("one_shot_without_power_down");
    oneShotAsked_ = true;
  }
  wakesUp_ = sleeps() && (value & kSensorOff) == 0;
  registers_[kConfiguration] = static_cast<u8>(value & ~(kOneShot | kAlertReset));
  if (sleeps()) nextDoneAt_ = kNever;
}

// In automatic mode the part converts from a stop on, and not during an access that has none.
void TemperatureSensor::accessEnded(bool byStop, Nanos now) {
  if (!active_) return;
  convertUntil(now);
  active_ = false;
  const Nanos wakeUp = wakesUp_ || sleeps() ? kWakeUp : 0;
  if (oneShotAsked_) oneShotDoneAt_ = now + wakeUp + kConversion;
  if (!sleeps()) nextDoneAt_ = byStop ? now + wakeUp + kConversion : kNever;
  oneShotAsked_ = false;
  wakesUp_ = false;
}

// The temperature is ten bits in two's complement on the left of sixteen, then the flags.
u8 TemperatureSensor::next(Nanos /*now*/) {
  const unsigned place = bytes_++;
  if (place >= (pointer_ == kTemperature ? 2U : 1U)) {
    violation("read_past_end");
    return 0xFF;
  }
  if (pointer_ != kTemperature) return registers_[pointer_];
  const unsigned value = static_cast<unsigned>(value_quarters_) << 6 & 0xFFC0;
  return static_cast<u8>(place == 0 ? value >> 8 : (value & 0xFF) | std::exchange(flags_, 0));
}

}  // namespace headend
