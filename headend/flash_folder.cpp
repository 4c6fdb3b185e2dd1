#include "headend/flash_folder.h"

#include <fcntl.h>
#include <sys/file.h>
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

void requireFlash(const fs::path& folder) {
  for (const char* below : {"", "para", "K717_QAM", "eeprom", "alarms", "panel", "snmp"}) {
    const fs::path path = folder / below;
    if (::access(path.c_str(), R_OK | X_OK) != 0 && errno != ENOENT && errno != ENOTDIR)
      fail("flash folder {} cannot be entered: {}: change its permissions, or use another folder (--flash)",
           path.string(), std::strerror(errno));
  }
  std::error_code ignored;
  if (fs::exists(folder, ignored) && !fs::is_directory(folder, ignored))
    fail("{} is no folder: name the flash folder with --flash", folder.string());
  if (!fs::is_directory(folder, ignored))
    fail("there is no flash folder {0}: make one with headend --init-flash --flash {0}", folder.string());
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

FlashLock::FlashLock(const fs::path& folder, const Say& say) {
  requireFlash(folder);
  const fs::path file = folder / "lock";
  fd_ = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (fd_ < 0) {
    say(fmt::format("{} cannot be opened: {}; a second headend on this flash folder is not refused",
                    file.string(), std::strerror(errno)));
    return;
  }
  if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
    std::string process;
    std::ifstream(file) >> process;
    ::close(fd_);
    fail(
        "flash folder {} is in use by process {}: two headends would overwrite each other's records. End "
        "that one, or give this one a folder of its own (--flash)",
        folder.string(), process.empty() ? "(unknown)" : process);
  }
  const std::string process = fmt::format("{}\n", ::getpid());
  if (::ftruncate(fd_, 0) != 0 || ::write(fd_, process.data(), process.size()) < 0)
    say(fmt::format("{} cannot be written: {}", file.string(), std::strerror(errno)));
}

FlashLock::~FlashLock() {
  if (fd_ >= 0) ::close(fd_);
}

void checkFlashFiles(const fs::path& folder, const std::vector<int>& slots, const Say& say) {
  const fs::path bitstream = folder / kBitstream;
  if (::access(bitstream.c_str(), R_OK | W_OK) != 0 && errno != ENOENT) {
    say(
        fmt::format("bitstream {} cannot be opened for update: {}. The cards take it for missing: make it "
                    "writable",
                    bitstream.string(), std::strerror(errno)));
  }
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
