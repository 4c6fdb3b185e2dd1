#include "headend/hardware/ad7414.h"

#include <algorithm>
#include <cmath>

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
constexpr Nanos kUpdate = 800'000'000;

constexpr double kMin_celsius = -55;
constexpr double kMax_celsius = 127;

}  // namespace

TemperatureSensor::TemperatureSensor(u8 address, std::string name, Violations& violations)
    : I2cSlave(std::move(name), violations), address_(address) {
  powerUp();
}

void TemperatureSensor::powerUp() {
  value_quarters_ = 0;
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

// Conversions that end while the device takes part in a transfer are lost, so that no mixture is read.
void TemperatureSensor::convertUntil(Nanos now) {
  bool converted = false;
  if (oneShotDoneAt_ <= now) {
    oneShotDoneAt_ = kNever;
    converted = true;
  }
  if (nextDoneAt_ <= now) {
    nextDoneAt_ += (1 + (now - nextDoneAt_) / kUpdate) * kUpdate;
    converted = true;
  }
  if (converted && !active_) value_quarters_ = measured_quarters_;
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
  if ((value & kOneShot) != 0) oneShotAsked_ = true;
  wakesUp_ = sleeps() && (value & kSensorOff) == 0;
  registers_[kConfiguration] = static_cast<u8>(value & ~(kOneShot | kAlertReset));
  if (sleeps()) nextDoneAt_ = kNever;
}

void TemperatureSensor::accessEnded(bool /*byStop*/, Nanos now) {
  if (!active_) return;
  convertUntil(now);
  active_ = false;
  const Nanos wakeUp = wakesUp_ || sleeps() ? kWakeUp : 0;
  if (oneShotAsked_) oneShotDoneAt_ = now + wakeUp + kConversion;
  if (wakesUp_) nextDoneAt_ = now + kWakeUp + kConversion;
  oneShotAsked_ = false;
  wakesUp_ = false;
}

u8 TemperatureSensor::next(Nanos /*now*/) {
  const unsigned place = bytes_++;
  if (place >= (pointer_ == kTemperature ? 2U : 1U)) {
    violation("read_past_end");
    return 0xFF;
  }
  if (pointer_ != kTemperature) return registers_[pointer_];
  return static_cast<u8>(temperatureRegister() >> (place == 0 ? 8 : 0));
}

// Ten bits in two's complement on the left of sixteen, then the flags.
unsigned TemperatureSensor::temperatureRegister() const {
  const int quarters = value_quarters_;
  unsigned flags = 0;
  if (quarters > 4 * static_cast<std::int8_t>(registers_[kHigh])) flags |= kHighFlag | kAlertFlag;
  if (quarters < 4 * static_cast<std::int8_t>(registers_[kLow])) flags |= kLowFlag | kAlertFlag;
  return (static_cast<unsigned>(quarters) << 6 & 0xFFC0) | flags;
}

}  // namespace headend
