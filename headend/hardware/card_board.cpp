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
constexpr u32 kEepromScl = offsetOf("X24C16SCL");
constexpr u32 kEepromSda = offsetOf("X24C16SDA");

// The lines of a calibration, which a power cut counts.
enum CalibrationLine : std::size_t { kSclEdge, kSdaEdge, kResetEdge, kSelectEdge, kClockEdge, kDataEdge };

}  // namespace

CardBoard::CardBoard(Violations& violations, unsigned seed)
    : clockGenerator_(kClockInput_Hz, violations),
      sensor1_(kSensorAddress, "sensor1", violations),
      sensor2_(kSensorAddress, "sensor2", violations),
      firstOscillator_("lo1", kReference_Hz, true, violations),
      secondOscillator_("lo2", kReference_Hz, false, violations),
      attenuator_("attenuator", violations),
      dac_("dac", violations),
      eeprom_(violations, seed) {}

void CardBoard::pullAllLow(Nanos now) {
  for (const u32 clock : {kClockScl, kSensor1Scl, kSensor2Scl, kEepromScl}) drive(clock, false, now);
  for (u32 offset = 0; offset < kCardWindowSize; offset += 2) {
    if (cardRegister(offset).kind == CardRegister::kLine) drive(offset, false, now);
  }
}

// The edge itself still reaches its device.
void CardBoard::countEdge(std::size_t line, bool level) {
  if (calibrationLevels_[line] == level) return;
  calibrationLevels_[line] = level;
  if (++calibrationEdges_ == cutAt_) onCut_();
}

void CardBoard::atEdge(std::uint64_t edge, std::function<void()> hook) {
  cutAt_ = edge;
  onCut_ = std::move(hook);
}

void CardBoard::cutPower(Nanos now) {
  eeprom_.powerCut(now);
  powerless_ = true;
}

void CardBoard::drive(u32 offset, bool level, Nanos now) {
  if (powerless_) return;
  switch (offset) {
    case kEepromScl:
      eepromBus_.driveClock(level, now);
      return countEdge(kSclEdge, level);
    case kEepromSda:
      eepromBus_.driveData(level, now);
      return countEdge(kSdaEdge, level);
    case offsetOf("ad9775_1_rst"):
      dac_.reset(level, now);
      return countEdge(kResetEdge, level);
    case offsetOf("ad9775_1_cs"):
      dac_.chipSelect(level, now);
      return countEdge(kSelectEdge, level);
    case offsetOf("ad9775_1_clk"):
      dac_.clock(level, now);
      return countEdge(kClockEdge, level);
    case offsetOf("ad9775_1_sdio"):
      dac_.dataIn(level, now);
      return countEdge(kDataEdge, level);
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
  if (powerless_) return {};
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
    case kEepromScl:
      return eepromBus_.clock(now);
    case kEepromSda:
      return eepromBus_.data(now);
    case offsetOf("ad9775_1_sdo"):
      return dac_.dataOut();
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
    case kEepromScl:
      return kEepromSda;
    case kEepromSda:
      return kEepromScl;
    case offsetOf("ad9775_1_clk"):
      return offsetOf("ad9775_1_sdo");
    default:
      return {};
  }
}

}  // namespace headend
