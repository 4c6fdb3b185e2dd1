#include "headend/flash_folder.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <system_error>
#include <utility>

#include "card/QamCardPara.h"
#include "headend/fail.h"
#include "headend/hardware/bitstream.h"

namespace headend {
namespace {

namespace fs = std::filesystem;

constexpr const char* kBitstream = "K717_QAM/qam.bin";

std::string eepromPath(int slot) {
  return fmt::format("/tffs0/eeprom/card{}.bin", slot + 1);
}

}  // namespace

void initFlash(const fs::path& folder) {
  if (fs::exists(folder / kBitstream))
    fail("{} has a bitstream already: remove it first to make a new one", folder.string());
  std::error_code error;
  for (const char* below : {"para", "K717_QAM"}) {
    fs::create_directories(folder / below, error);
    if (error) fail("cannot make {}: {}", (folder / below).string(), error.message());
  }
  const std::string failure =
      Flash(folder).replace(fmt::format("/tffs0/{}", kBitstream), makeSampleBitstream());
  if (!failure.empty()) fail("{}", failure);
}

void requireFlash(const fs::path& folder) {
  if (!fs::is_directory(folder))
    fail("there is no flash folder {0}: make one with headend --init-flash --flash {0}", folder.string());
}

void checkParameterFiles(const fs::path& folder, const std::vector<int>& slots, const Say& say) {
  for (const int slot : slots) {
    const fs::path file = folder / "para" / fmt::format("card{}.dat", slot + 1);
    std::error_code ignored;
    if (!fs::is_regular_file(file, ignored)) continue;
    if (::access(file.c_str(), R_OK | W_OK) != 0) {
      fail(
          "parameter file {} cannot be opened for update: {}. The card would take it for missing and put "
          "defaults in its place: make it writable, or move it away",
          file.string(), std::strerror(errno));
    }
    std::array<char, 8> head{};
    std::ifstream(file, std::ios::binary).read(head.data(), head.size());
    const auto size = fs::file_size(file, ignored);
    const bool ofThisKind = size >= head.size() && head[0] == QAM_CARD_TYPE && head[2] == kRecordVersion;
    if (size < sizeof(QamCardPara)) {
      say(fmt::format("{} is short: {} of {} bytes; {}", file.string(), size, sizeof(QamCardPara),
                      ofThisKind ? "the card keeps the rest as its memory came (--heap-fill)"
                                 : "the card takes defaults"));
    }
    if (ofThisKind && head[1] != slot) {
      say(fmt::format("{} was made for slot {}; the card takes it all the same", file.string(),
                      static_cast<u8>(head[1]) + 1));
    }
  }
}

void EepromFiles::load(int slot, bool isBlank, Eeprom& eeprom) {
  Eeprom::Image image = kFactoryCalibration;
  if (isBlank) image.fill(0xFF);
  std::optional<std::string> bytes;
  try {
    bytes = flash_.read(eepromPath(slot), image.size());
  } catch (const std::system_error&) {
    bytes.emplace();  // reported by its size
  }
  if (bytes && bytes->size() != image.size()) {
    fail("{} is no calibration EEPROM: want a file of {} bytes that can be read",
         flash_.hostPath(eepromPath(slot))->string(), image.size());
  }
  if (bytes && isBlank) {
    fail("--eeprom {}=blank: {} holds this card's EEPROM: remove it for a blank one", slot + 1,
         flash_.hostPath(eepromPath(slot))->string());
  }
  if (bytes) std::copy(bytes->begin(), bytes->end(), image.begin());
  eeprom.load(image);
  parts_[slot] = {&eeprom, image};
}

void EepromFiles::save(Nanos now) {
  for (auto& [slot, part] : parts_) {
    const Eeprom::Image& image = part.eeprom->image(now);
    if (part.saved == image) continue;
    const std::string failure = flash_.replace(eepromPath(slot), image);
    if (failure.empty()) {
      part.saved = image;
    } else if (std::exchange(kept_, false)) {
      say_(failure);
    }
  }
}

}  // namespace headend
