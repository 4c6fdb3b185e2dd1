// The calibration EEPROMs between runs: one file a slot in the flash folder, which is where a card's own
// memory has to go when there is no card.
#pragma once

#include <filesystem>
#include <map>

#include "headend/hardware/eeprom.h"

namespace headend {

class EepromFiles {
 public:
  explicit EepromFiles(const std::filesystem::path& flash) : folder_(flash / "eeprom") {}

  // Contents from the slot's file; blank where there is none. Throws std::runtime_error for a file of another
  // size, or one that cannot be read.
  void load(int slot, Eeprom& eeprom);
  // Writes the slot's file where the contents have changed. Empty when done, else what went wrong.
  std::string save(int slot, Eeprom& eeprom, Nanos now);

 private:
  std::filesystem::path file(int slot) const;

  std::filesystem::path folder_;
  std::map<int, Eeprom::Image> saved_;
};

}  // namespace headend
