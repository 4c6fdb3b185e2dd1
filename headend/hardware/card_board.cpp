#include "headend/hardware/card_board.h"

#include <utility>

namespace headend {
namespace {

constexpr double kReference_Hz = 13e6;   // of both synthesizers
constexpr double kClockInput_Hz = 55e6;  // of the clock generator
constexpr u8 kSensorAddress = 0x4A;

constexpr u32 kClockScl = offsetOf("cdce925_scl");
constexpr u32 kSensor1Scl = offsetOf("ad7414_scl");
constexpr u32 kSensor2Scl = offsetOf("ext_ad7414_scl");
constexpr u32 kEepromScl = offsetOf("X24C16SCL");
constexpr u32 kEepromSda = offsetOf("X24C16SDA");

}  // namespace

CardBoard::CardBoard(Violations& violations, unsigned seed)
    : clockGenerator(kClockInput_Hz, violations),
      sensor1(kSensorAddress, "sensor1", violations),
      sensor2(kSensorAddress, "sensor2", violations),
      eeprom(violations, seed),
      firstOscillator("lo1", kReference_Hz, true, violations),
      secondOscillator("lo2", kReference_Hz, false, violations),
      attenuator("attenuator", violations),
      dac("dac", violations) {
  connect(kClockScl, offsetOf("cdce925_sda"), clockBus);
  connect(kSensor1Scl, offsetOf("ad7414_sda"), sensorBus1);
  connect(kSensor2Scl, offsetOf("ext_ad7414_sda"), sensorBus2);
  connect(kEepromScl, kEepromSda, eepromBus);
  connect(offsetOf("lo1_dat"), offsetOf("lo1_clk"), offsetOf("lo1_le"), firstOscillator);
  connect(offsetOf("lo2_q1_dat"), offsetOf("lo2_q1_clk"), offsetOf("lo2_q1_le"), secondOscillator);
  connect(offsetOf("att_q1_dat"), offsetOf("att_q1_clk"), offsetOf("att_q1_le"), attenuator);
  wires_[offsetOf("cdce925_s0") / 2].drive = [this](bool level, Nanos now) {
    clockGenerator.selectS0(level, now);
  };
  const auto connectMuxout = [this](u32 line, const Synthesizer& part) {
    wires_[line / 2].sense = [&part](Nanos now) { return part.muxout(now); };
  };
  connectMuxout(offsetOf("lo1_mo"), firstOscillator);
  connectMuxout(offsetOf("lo2_q1_mo"), secondOscillator);
  connectDac();
  for (const u32 line : {kEepromScl, kEepromSda, offsetOf("ad9775_1_rst"), offsetOf("ad9775_1_cs"),
                         offsetOf("ad9775_1_clk"), offsetOf("ad9775_1_sdio")})
    wires_[line / 2].calibrates = true;
}

void CardBoard::connect(u32 clock, u32 data, OpenDrainBus& bus) {
  const auto connectLine = [&](u32 offset, OpenDrainBus::Line line, u32 other) {
    wires_[offset / 2] = {.drive = [&bus, line](bool level, Nanos now) { bus.drive(line, level, now); },
                          .sense = [&bus, line](Nanos now) { return bus.level(line, now); },
                          .companion = other};
  };
  connectLine(clock, OpenDrainBus::kClock, data);
  connectLine(data, OpenDrainBus::kData, clock);
}

void CardBoard::connect(u32 data, u32 clock, u32 latchEnable, ThreeWire& part) {
  wires_[data / 2].drive = [&part](bool level, Nanos now) { part.data(level, now); };
  wires_[clock / 2].drive = [&part](bool level, Nanos now) { part.clock(level, now); };
  wires_[latchEnable / 2].drive = [&part](bool level, Nanos now) { part.latchEnable(level, now); };
}

void CardBoard::connectDac() {
  wires_[offsetOf("ad9775_1_rst") / 2].drive = [this](bool level, Nanos now) { dac.reset(level, now); };
  wires_[offsetOf("ad9775_1_cs") / 2].drive = [this](bool level, Nanos now) { dac.chipSelect(level, now); };
  wires_[offsetOf("ad9775_1_sdio") / 2].drive = [this](bool level, Nanos now) { dac.dataIn(level, now); };
  wires_[offsetOf("ad9775_1_sdo") / 2].sense = [this](Nanos) { return dac.dataOut(); };
  Wire& clock = wires_[offsetOf("ad9775_1_clk") / 2];
  clock.drive = [this](bool level, Nanos now) { dac.clock(level, now); };
  clock.companion = offsetOf("ad9775_1_sdo");
}

void CardBoard::pullAllLow(Nanos now) {
  for (const u32 clock : {kClockScl, kSensor1Scl, kSensor2Scl, kEepromScl}) drive(clock, false, now);
  for (u32 offset = 0; offset < kCardWindowSize; offset += 2) {
    if (cardRegister(offset).kind == CardRegister::kLine) drive(offset, false, now);
  }
}

void CardBoard::atEdge(std::uint64_t edge, std::function<void()> hook) {
  cutAt_ = edge;
  onCut_ = std::move(hook);
}

void CardBoard::cutPower(Nanos now) {
  eeprom.powerCut(now);
  powerless_ = true;
}

// The edge at which power is cut still reaches its device.
void CardBoard::drive(u32 offset, bool level, Nanos now) {
  Wire& wire = wires_[offset / 2];
  if (powerless_ || !wire.drive) return;
  wire.drive(level, now);
  if (!wire.calibrates || std::exchange(wire.level, level) == level) return;
  if (++calibrationEdges_ == cutAt_) onCut_();
}

std::optional<bool> CardBoard::sense(u32 offset, Nanos now) {
  const Wire& wire = wires_[offset / 2];
  if (powerless_ || !wire.sense) return {};
  return wire.sense(now);
}

}  // namespace headend
