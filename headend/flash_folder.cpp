#include "headend/flash_folder.h"

#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "card/QamCardPara.h"
#include "headend/hardware/bitstream.h"
#include "headend/kernel/flash.h"

namespace headend {
namespace {

namespace fs = std::filesystem;

constexpr const char* kBitstream = "K717_QAM/qam.bin";

}  // namespace

void initFlash(const fs::path& folder) {
  if (fs::exists(folder / kBitstream)) {
    throw std::runtime_error(
        fmt::format("{} has a bitstream already: remove it first to make a new one", folder.string()));
  }
  std::error_code error;
  for (const char* below : {"para", "K717_QAM"}) {
    fs::create_directories(folder / below, error);
    if (error)
      throw std::runtime_error(fmt::format("cannot make {}: {}", (folder / below).string(), error.message()));
  }
  const std::string failure =
      Flash(folder).replace(fmt::format("/tffs0/{}", kBitstream), makeSampleBitstream());
  if (!failure.empty()) throw std::runtime_error(failure);
}

void requireFlash(const fs::path& folder) {
  if (fs::is_directory(folder)) return;
  throw std::runtime_error(fmt::format(
      "there is no flash folder {0}: make one with headend --init-flash --flash {0}", folder.string()));
}

void checkParameterFiles(const fs::path& folder, const std::vector<int>& slots,
                         const std::function<void(const std::string&)>& say) {
  for (const int slot : slots) {
    const fs::path file = folder / "para" / fmt::format("card{}.dat", slot + 1);
    std::error_code ignored;
    if (!fs::is_regular_file(file, ignored)) continue;
    if (::access(file.c_str(), R_OK | W_OK) != 0) {
      throw std::runtime_error(
          fmt::format("parameter file {} cannot be opened for update: {}. The card would take it for missing "
                      "and put defaults in its place: make it writable, or move it away",
                      file.string(), std::strerror(errno)));
    }
    std::array<char, 8> head{};
    std::ifstream stream(file, std::ios::binary);
    stream.read(head.data(), head.size());
    const bool ofThisKind = stream.gcount() == head.size() && head[0] == QAM_CARD_TYPE && head[2] == 'd';
    const auto size = fs::file_size(file, ignored);
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

}  // namespace headend
