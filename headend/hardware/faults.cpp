#include "headend/hardware/faults.h"

#include <algorithm>
#include <functional>

namespace headend {
namespace {

struct BusName {
  const char* name;
  const char* text;
  OpenDrainBus CardBoard::*bus;
  bool mayLack = true;  // a card can work without the device
};
constexpr BusName kBuses[] = {
    {"clock", "the clock generator", &CardBoard::clockBus, false},
    {"sensor1", "temperature sensor 1", &CardBoard::sensorBus1},
    {"sensor2", "temperature sensor 2", &CardBoard::sensorBus2},
    {"eeprom", "the calibration EEPROM", &CardBoard::eepromBus},
};

struct BusFaultName {
  const char* name;
  const char* text;
  OpenDrainBus::Fault fault;
};
constexpr BusFaultName kBusFaults[] = {
    {"absent", "is not there", OpenDrainBus::Fault::kAbsent},
    {"no-ack", "does not acknowledge its address", OpenDrainBus::Fault::kNoAcknowledge},
    {"scl-low", "has its clock line stuck low", OpenDrainBus::Fault::kClockLow},
    {"scl-high", "has its clock line stuck high", OpenDrainBus::Fault::kClockHigh},
    {"sda-low", "has its data line stuck low", OpenDrainBus::Fault::kDataLow},
    {"sda-high", "has its data line stuck high", OpenDrainBus::Fault::kDataHigh},
    {"stretch", "stretches the clock by 100 us after each byte", OpenDrainBus::Fault::kStretch},
};

std::vector<FaultKind> makeKinds() {
  std::vector<FaultKind> kinds;
  for (const BusName& bus : kBuses) {
    for (const BusFaultName& fault : kBusFaults) {
      if (!bus.mayLack && fault.fault == OpenDrainBus::Fault::kAbsent) continue;
      kinds.push_back({std::string(bus.name) + "-" + fault.name, std::string(bus.text) + " " + fault.text,
                       [lines = bus.bus, kind = fault.fault](CardFpga& card, bool present, Nanos now) {
                         (card.board().*lines).inject(kind, present, now);
                       }});
    }
  }
  const auto add = [&](const char* name, const char* text, void (*set)(CardBoard&, bool present, Nanos now)) {
    kinds.push_back(
        {name, text, [set](CardFpga& card, bool present, Nanos now) { set(card.board(), present, now); }});
  };
  add("lo1-no-latch", "the first oscillator's latch enable is not connected",
      [](CardBoard& b, bool present, Nanos) { b.firstOscillator.connectLatchEnable(!present); });
  add("lo2-no-latch", "the second oscillator's latch enable is not connected",
      [](CardBoard& b, bool present, Nanos) { b.secondOscillator.connectLatchEnable(!present); });
  add("attenuator-no-latch", "the attenuator's latch enable is not connected",
      [](CardBoard& b, bool present, Nanos) { b.attenuator.connectLatchEnable(!present); });
  add("lo1-no-reference", "the first oscillator has no reference",
      [](CardBoard& b, bool present, Nanos now) { b.firstOscillator.connectReference(!present, now); });
  add("lo2-no-reference", "the second oscillator has no reference",
      [](CardBoard& b, bool present, Nanos now) { b.secondOscillator.connectReference(!present, now); });
  kinds.push_back({.name = "config-lost",
                   .text = "the FPGA loses its configuration",
                   .set = [](CardFpga& card, bool, Nanos now) { card.configuration().lose(now); },
                   .ends = false});
  return kinds;
}

}  // namespace

const std::vector<FaultKind>& faultKinds() {
  static const std::vector<FaultKind> kinds = makeKinds();
  return kinds;
}

const FaultKind* findFault(const std::string& name) {
  const auto found = std::ranges::find(faultKinds(), name, &FaultKind::name);
  return found == faultKinds().end() ? nullptr : &*found;
}

}  // namespace headend
