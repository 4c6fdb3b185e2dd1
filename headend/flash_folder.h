// The flash folder of a run: made by --init-flash, checked before the cards read it, and with the contents of
// the calibration EEPROMs between runs, a file per slot.
#pragma once

#include <boost/core/noncopyable.hpp>

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

// Allows one headend at a time on a flash folder, because each would overwrite the records of the other:
// holds a lock on a file in the folder, which the system removes with the process.
class FlashLock : boost::noncopyable {
 public:
  // Throws std::runtime_error if there is no such folder, if it or a folder in it cannot be entered, or with
  // the process that has the lock. `say` is called if the folder cannot be locked, because it is not
  // writable.
  FlashLock(const std::filesystem::path& folder, const Say& say);
  ~FlashLock();

 private:
  int fd_ = -1;
};

// Reports through `say` the bitstream and the parameter files that a card will not use as they are. Throws
// std::runtime_error for a parameter file that the card cannot open for update, because the card would
// replace it with defaults.
void checkFlashFiles(const std::filesystem::path& folder, const std::vector<int>& slots, const Say& say);

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
