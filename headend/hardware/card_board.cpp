#include "headend/hardware/card_board.h"

#include "headend/hardware/card_registers.h"

namespace headend {
namespace {

constexpr double kReference_Hz = 13e6;   // of both synthesizers
constexpr double kClockInput_Hz = 55e6;  // of the clock generator
constexpr u8 kSensorAddress = 0x4A;

constexpr u32 kClockScl = offsetOf("cdce925_scl");
constexpr u32 kClockSda = offsetOf("cdce925_sda");
constexpr u32 kClockS0 = offsetOf("cdce925_s0");
constexpr u32 kSensor1Scl = offsetOf("ad7414_scl");
constexpr u32 kSensor1Sda = offsetOf("ad7414_sda");
constexpr u32 kSensor2Scl = offsetOf("ext_ad7414_scl");
constexpr u32 kSensor2Sda = offsetOf("ext_ad7414_sda");

}  // namespace

CardBoard::CardBoard(Violations& violations)
    : clockGenerator_(kClockInput_Hz, violations),
      sensor1_(kSensorAddress, "sensor1", violations),
      sensor2_(kSensorAddress, "sensor2", violations),
      firstOscillator_("lo1", kReference_Hz, true, violations),
      secondOscillator_("lo2", kReference_Hz, false, violations),
      attenuator_("attenuator", violations) {}

void CardBoard::drive(u32 offset, bool level, Nanos now) {
  switch (offset) {
    case kClockScl:
      return clockBus_.driveClock(level, now);
    case kClockSda:
      return clockBus_.driveData(level, now);
    case kClockS0:
      return clockGenerator_.selectS0(level, now);
    case kSensor1Scl:
      return sensorBus1_.driveClock(level, now);
    case kSensor1Sda:
      return sensorBus1_.driveData(level, now);
    case kSensor2Scl:
      return sensorBus2_.driveClock(level, now);
    case kSensor2Sda:
      return sensorBus2_.driveData(level, now);
    case offsetOf("lo1_dat"):
      return firstOscillator_.data(level, now);
    case offsetOf("lo1_clk"):
      return firstOscillator_.clock(level, now);
    case offsetOf("lo1_le"):
      return firstOscillator_.latchEnable(level, now);
    case offsetOf("lo2_q1_dat"):
      return secondOscillator_.data(level, now);
    case offsetOf("lo2_q1_clk"):
      return secondOscillator_.clock(level, now);
    case offsetOf("lo2_q1_le"):
      return secondOscillator_.latchEnable(level, now);
    case offsetOf("att_q1_dat"):
      return attenuator_.data(level, now);
    case offsetOf("att_q1_clk"):
      return attenuator_.clock(level, now);
    case offsetOf("att_q1_le"):
      return attenuator_.latchEnable(level, now);
    default:
      return;
  }
}

std::optional<bool> CardBoard::sense(u32 offset, Nanos now) {
  switch (offset) {
    case kClockScl:
      return clockBus_.clock(now);
    case kClockSda:
      return clockBus_.data(now);
    case kSensor1Scl:
      return sensorBus1_.clock(now);
    case kSensor1Sda:
      return sensorBus1_.data(now);
    case kSensor2Scl:
      return sensorBus2_.clock(now);
    case kSensor2Sda:
      return sensorBus2_.data(now);
    default:
      return {};
  }
}

std::optional<u32> CardBoard::companion(u32 offset) {
  switch (offset) {
    case kClockScl:
      return kClockSda;
    case kClockSda:
      return kClockScl;
    case kSensor1Scl:
      return kSensor1Sda;
    case kSensor1Sda:
      return kSensor1Scl;
    case kSensor2Scl:
      return kSensor2Sda;
    case kSensor2Sda:
      return kSensor2Scl;
    default:
      return {};
  }
}

}  // namespace headend
