// The flash folder of a run: made by --init-flash, checked before the cards read it, and with the contents of
// the calibration EEPROMs between runs, a file per slot.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "headend/firmware/log.h"
#include "headend/hardware/card_board.h"
#include "headend/kernel/flash.h"

namespace headend {

// Creates a flash folder with the sample bitstream. Throws std::runtime_error; refuses a folder that has a
// bitstream.
void initFlash(const std::filesystem::path& folder);

// Throws std::runtime_error if there is no such folder.
void requireFlash(const std::filesystem::path& folder);

// Reports through `say` the parameter files that a card will not use as they are. Throws std::runtime_error
// for a file that the card cannot open for update, because the card would replace it with defaults.
void checkParameterFiles(const std::filesystem::path& folder, const std::vector<int>& slots, const Say& say);

class EepromFiles {
 public:
  // `say` is called with a message if a file cannot be saved.
  EepromFiles(Flash& flash, Say say) : flash_(flash), say_(std::move(say)) {}

  // Contents from the slot's file. Without a file: those of a new card, or 0xFF if `isBlank`. Throws
  // std::runtime_error if the file has a different size or cannot be read, or if there is one and `isBlank`.
  // `eeprom` must outlive this object.
  void load(int slot, bool isBlank, Eeprom& eeprom);
  // Writes the files of the EEPROMs whose contents have changed.
  void save(Nanos now);
  bool kept() const { return kept_; }  // whether each file could be saved so far

 private:
  struct Part {
    Eeprom* eeprom;
    Eeprom::Image saved;
  };

  Flash& flash_;
  Say say_;
  std::map<int, Part> parts_;  // by slot
  bool kept_ = true;
};

}  // namespace headend
