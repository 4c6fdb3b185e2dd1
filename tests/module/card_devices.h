// The headend's models of the card's devices behind the lines of the fake chassis's window, in the chassis's
// time. They decode what the lines do, answer on theirs, and count what breaks a data sheet's rule.
#pragma once

#include "headend/hardware/card_board.h"
#include "tests/module/chassis.h"

namespace test {

class DeviceTest : public ModuleTest {
 protected:
  DeviceTest() {
    fake.onWrite = [this](u32 address, u16 value) {
      if (address >= kWindows) board.drive(address & 0x1FF, (value & 1) != 0, fake.now);
    };
    fake.onRead = [this](u32 address) -> std::optional<u16> {
      if (address < kWindows) return {};
      const std::optional<bool> level = board.sense(address & 0x1FF, fake.now);
      return level ? std::optional<u16>{*level ? 1 : 0} : std::nullopt;
    };
  }
  void TearDown() override {
    for (const auto& [kind, count] : violations.counts())
      ADD_FAILURE() << "a device complains: " << kind << " (" << count << " times)";
  }

  headend::Violations violations;
  headend::CardBoard board{violations, 1};
};

}  // namespace test
