// The devices of a card, connected to the lines of its FPGA: clock generator, temperature sensors,
// synthesizers, attenuator, DAC and calibration EEPROM. Only this class maps registers to lines.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <optional>

#include "headend/hardware/ad7414.h"
#include "headend/hardware/ad9775.h"
#include "headend/hardware/adf4113.h"
#include "headend/hardware/at24c16.h"
#include "headend/hardware/card_registers.h"
#include "headend/hardware/cdce925.h"
#include "headend/hardware/i2c.h"

namespace headend {

// The EEPROM of a new card, calibrated in the factory: full scale, no correction of gain or offset.
inline constexpr Eeprom::Image kFactoryCalibration = [] {
  Eeprom::Image image{0x00, 0x04, 0x00, 0x00, 0x00, 0x00, 0x0F, 0x00, 0x00, 0x00, 0x0F, 0x00, 0x00};
  std::fill(image.begin() + 13, image.end(), u8{0xFF});
  return image;
}();

class CardBoard {
 public:
  CardBoard(Violations& violations, unsigned seed);

  // The FPGA drives one of its lines. Registers that are not lines of these devices are ignored.
  void drive(u32 offset, bool level, Nanos now);
  // The FPGA restarts: it pulls every line low, clocks first, so that no bus has a start condition.
  void pullAllLow(Nanos now);
  // The level that the FPGA reads on a shared line; nullopt if it reads only its own register.
  std::optional<bool> sense(u32 offset, Nanos now);
  // The line on which a device may respond to a change of this line.
  std::optional<u32> companion(u32 offset) const { return wires_[offset / 2].companion; }

  // The output stage gets its supply: what the devices lack for that is counted.
  void takeIntoUse() { clockGenerator.takeIntoUse(), dac.takeIntoUse(); }

  TemperatureSensor& sensor(int number) { return number == 1 ? sensor1 : sensor2; }

  // Line changes to DAC and EEPROM: the points at which a calibration can be interrupted.
  std::uint64_t calibrationEdges() const { return calibrationEdges_; }
  void atEdge(std::uint64_t edge, std::function<void()> hook);  // from 1; one hook at a time
  void cutPower(Nanos now);                                     // after that, no line changes

  ClockGenerator clockGenerator;
  TemperatureSensor sensor1;
  TemperatureSensor sensor2;
  Eeprom eeprom;
  OpenDrainBus clockBus{&clockGenerator};
  OpenDrainBus sensorBus1{&sensor1};
  OpenDrainBus sensorBus2{&sensor2};
  OpenDrainBus eepromBus{&eeprom};
  Synthesizer firstOscillator;
  Synthesizer secondOscillator;
  Attenuator attenuator;
  Dac dac;

 private:
  // What is connected to a line of the FPGA.
  struct Wire {
    std::function<void(bool level, Nanos now)> drive;
    std::function<bool(Nanos now)> sense;
    std::optional<u32> companion;
    bool calibrates = false;
    bool level = false;  // of a line that calibrates
  };

  void connect(u32 clock, u32 data, OpenDrainBus& bus);
  void connect(u32 data, u32 clock, u32 latchEnable, ThreeWire& part);
  void connectDac();

  std::array<Wire, kCardRegisters.size()> wires_;
  std::uint64_t calibrationEdges_ = 0;
  std::uint64_t cutAt_ = 0;  // 0: never
  std::function<void()> onCut_;
  bool powerless_ = false;
};

}  // namespace headend
