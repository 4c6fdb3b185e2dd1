#include "headend/eeprom_files.h"

#include <fmt/format.h>

#include <fstream>
#include <stdexcept>
#include <system_error>

#include "base/files.h"

namespace headend {

std::filesystem::path EepromFiles::file(int slot) const {
  return folder_ / fmt::format("card{}.bin", slot + 1);
}

void EepromFiles::load(int slot, Eeprom& eeprom) {
  Eeprom::Image image;
  image.fill(0xFF);
  std::error_code error;
  // A file that cannot be checked must not be treated as blank.
  if (std::filesystem::symlink_status(file(slot), error).type() != std::filesystem::file_type::not_found) {
    std::ifstream stream(file(slot), std::ios::binary);
    stream.read(reinterpret_cast<char*>(image.data()), static_cast<std::streamsize>(image.size()));
    if (!stream || stream.peek() != std::ifstream::traits_type::eof()) {
      throw std::runtime_error(
          fmt::format("{} is no calibration EEPROM: want a file of {} bytes that can be read",
                      file(slot).string(), image.size()));
    }
  }
  eeprom.load(image);
  saved_[slot] = image;
}

std::string EepromFiles::save(int slot, Eeprom& eeprom, Nanos now) {
  const Eeprom::Image& image = eeprom.image(now);
  if (saved_[slot] == image) return {};
  std::error_code ignored;
  std::filesystem::create_directories(folder_, ignored);  // an error is reported by the open
  try {
    base::replaceFile(file(slot), file(slot).string() + ".new", image, base::Flush::kLater);
  } catch (const std::system_error& e) {
    return fmt::format("cannot save {}: {}", file(slot).string(), e.what());
  }
  saved_[slot] = image;
  return {};
}

}  // namespace headend
