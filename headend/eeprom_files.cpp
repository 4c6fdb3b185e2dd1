#include "headend/eeprom_files.h"

#include <fmt/format.h>

#include <stdexcept>
#include <system_error>

namespace headend {
namespace {

std::string pathOf(int slot) {
  return fmt::format("/tffs0/eeprom/card{}.bin", slot + 1);
}

}  // namespace

void EepromFiles::load(int slot, Eeprom& eeprom) {
  Eeprom::Image image;
  image.fill(0xFF);
  std::optional<std::string> bytes;
  try {
    bytes = flash_.read(pathOf(slot), image.size());
  } catch (const std::system_error&) {
    bytes.emplace();  // reported by its size
  }
  if (bytes && bytes->size() != image.size()) {
    throw std::runtime_error(
        fmt::format("{} is no calibration EEPROM: want a file of {} bytes that can be read",
                    flash_.hostPath(pathOf(slot))->string(), image.size()));
  }
  if (bytes) std::copy(bytes->begin(), bytes->end(), image.begin());
  eeprom.load(image);
  parts_[slot] = {&eeprom, image};
}

void EepromFiles::save(Nanos now) {
  for (auto& [slot, part] : parts_) {
    const Eeprom::Image& image = part.eeprom->image(now);
    if (part.saved == image) continue;
    const std::string failure = flash_.replace(pathOf(slot), image);
    if (failure.empty()) {
      part.saved = image;
    } else if (kept_) {
      say_(failure);
      kept_ = false;
    }
  }
}

}  // namespace headend
