// The devices of a card, connected to the lines of its FPGA: clock generator, temperature sensors,
// synthesizers, attenuator, DAC and calibration EEPROM. Only this class maps registers to lines.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "headend/hardware/attenuator.h"
#include "headend/hardware/clock_generator.h"
#include "headend/hardware/dac.h"
#include "headend/hardware/eeprom.h"
#include "headend/hardware/open_drain_bus.h"
#include "headend/hardware/synthesizer.h"
#include "headend/hardware/temperature_sensor.h"
#include "platform/types.h"

namespace headend {

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
  static std::optional<u32> companion(u32 offset);

  ClockGenerator& clockGenerator() { return clockGenerator_; }
  const ClockGenerator& clockGenerator() const { return clockGenerator_; }
  TemperatureSensor& sensor(int number) { return number == 1 ? sensor1_ : sensor2_; }
  Synthesizer& firstOscillator() { return firstOscillator_; }
  Synthesizer& secondOscillator() { return secondOscillator_; }
  const Synthesizer& firstOscillator() const { return firstOscillator_; }
  const Synthesizer& secondOscillator() const { return secondOscillator_; }
  Attenuator& attenuator() { return attenuator_; }
  const Attenuator& attenuator() const { return attenuator_; }

  Dac& dac() { return dac_; }
  Eeprom& eeprom() { return eeprom_; }

  OpenDrainBus& clockBus() { return clockBus_; }
  OpenDrainBus& eepromBus() { return eepromBus_; }
  OpenDrainBus& sensorBus(int number) { return number == 1 ? sensorBus1_ : sensorBus2_; }

  // Line changes to DAC and EEPROM: the points at which a calibration can be interrupted.
  std::uint64_t calibrationEdges() const { return calibrationEdges_; }
  void atEdge(std::uint64_t edge, std::function<void()> hook);  // from 1; one hook at a time
  void cutPower(Nanos now);                                     // after that, no line changes

 private:
  static constexpr std::size_t kCalibrationLines = 6;

  void countEdge(std::size_t line, bool level);

  ClockGenerator clockGenerator_;
  TemperatureSensor sensor1_;
  TemperatureSensor sensor2_;
  OpenDrainBus clockBus_{&clockGenerator_};
  OpenDrainBus sensorBus1_{&sensor1_};
  OpenDrainBus sensorBus2_{&sensor2_};
  Synthesizer firstOscillator_;
  Synthesizer secondOscillator_;
  Attenuator attenuator_;
  Dac dac_;
  Eeprom eeprom_;
  OpenDrainBus eepromBus_{&eeprom_};

  std::array<bool, kCalibrationLines> calibrationLevels_{};
  std::uint64_t calibrationEdges_ = 0;
  std::uint64_t cutAt_ = 0;  // 0: never
  std::function<void()> onCut_;
  bool powerless_ = false;
};

}  // namespace headend
