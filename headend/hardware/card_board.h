// The devices of a card, wired to the lines of its FPGA: clock generator, temperature sensors, synthesizers,
// attenuator, DAC and calibration EEPROM. Knows which line goes where; the devices know nothing of registers.
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

  // The FPGA drives one of its lines. Registers that are no lines of these devices are ignored.
  void drive(u32 offset, bool level, Nanos now);
  // The FPGA starts up anew: it pulls every line low, clocks first, so that no bus sees a start.
  void pullAllLow(Nanos now);
  // What the FPGA sees on a line that others drive too; nothing where it only sees its own register.
  std::optional<bool> sense(u32 offset, Nanos now);
  // The line on which a device may answer a change of this one.
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

  // Changes of the lines to DAC and EEPROM, which are the points at which a calibration can be cut short.
  std::uint64_t calibrationEdges() const { return calibrationEdges_; }
  void atEdge(std::uint64_t edge, std::function<void()> hook);  // from 1; one hook at a time
  void cutPower(Nanos now);                                     // from then on nothing moves

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
