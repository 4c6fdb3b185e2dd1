// Keeps the contents of the calibration EEPROMs between runs: one file per slot in the flash folder.
#pragma once

#include <filesystem>
#include <map>

#include "headend/hardware/eeprom.h"

namespace headend {

class EepromFiles {
 public:
  explicit EepromFiles(const std::filesystem::path& flash) : folder_(flash / "eeprom") {}

  // Contents from the slot's file; blank if there is no file. Throws std::runtime_error if the file has a
  // different size or cannot be read.
  void load(int slot, Eeprom& eeprom);
  // Writes the slot's file if the contents have changed. Returns an empty text on success, else the error.
  std::string save(int slot, Eeprom& eeprom, Nanos now);

 private:
  std::filesystem::path file(int slot) const;

  std::filesystem::path folder_;
  std::map<int, Eeprom::Image> saved_;
};

}  // namespace headend
