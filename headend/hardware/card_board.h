// The devices of a card, wired to the lines of its FPGA: clock generator, temperature sensors, synthesizers,
// attenuator. Knows which line goes where; the devices know nothing of registers.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "headend/hardware/attenuator.h"
#include "headend/hardware/clock_generator.h"
#include "headend/hardware/open_drain_bus.h"
#include "headend/hardware/synthesizer.h"
#include "headend/hardware/temperature_sensor.h"
#include "platform/types.h"

namespace headend {

class CardBoard {
 public:
  explicit CardBoard(Violations& violations);

  // The FPGA drives one of its lines. Registers that are no lines of these devices are ignored.
  void drive(u32 offset, bool level, Nanos now);
  // What the FPGA sees on a line that others drive too; nothing where it only sees its own register.
  std::optional<bool> sense(u32 offset, Nanos now);
  // The other line of the bus to which a line belongs: a device may answer there.
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

  OpenDrainBus& clockBus() { return clockBus_; }
  OpenDrainBus& sensorBus(int number) { return number == 1 ? sensorBus1_ : sensorBus2_; }

 private:
  ClockGenerator clockGenerator_;
  TemperatureSensor sensor1_;
  TemperatureSensor sensor2_;
  OpenDrainBus clockBus_{&clockGenerator_};
  OpenDrainBus sensorBus1_{&sensor1_};
  OpenDrainBus sensorBus2_{&sensor2_};
  Synthesizer firstOscillator_;
  Synthesizer secondOscillator_;
  Attenuator attenuator_;
};

}  // namespace headend
