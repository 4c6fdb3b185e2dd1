// Keeps the contents of the calibration EEPROMs between runs: one file per slot in the flash folder.
#pragma once

#include <map>

#include "headend/hardware/eeprom.h"
#include "headend/kernel/flash.h"

namespace headend {

class EepromFiles {
 public:
  // `say` is called with a message if a file cannot be saved.
  EepromFiles(Flash& flash, std::function<void(const std::string&)> say)
      : flash_(flash), say_(std::move(say)) {}

  // Contents from the slot's file; blank if there is no file. Throws std::runtime_error if the file has a
  // different size or cannot be read. `eeprom` must outlive this object.
  void load(int slot, Eeprom& eeprom);
  // Writes the files of the EEPROMs whose contents have changed.
  void save(Nanos now);
  bool kept() const { return kept_; }  // whether each file could be saved so far

 private:
  struct Part {
    Eeprom* eeprom;
    Eeprom::Image saved;
  };

  Flash& flash_;
  std::function<void(const std::string&)> say_;
  std::map<int, Part> parts_;  // by slot
  bool kept_ = true;
};

}  // namespace headend
