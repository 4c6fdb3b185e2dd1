// The modulator logic of a card's FPGA: two reset lines, the constellation and the symbol-rate word. New
// values take effect when the reset is released, so that four registers change together.
#pragma once

#include <array>
#include <optional>

#include "headend/hardware/multiplexer.h"
#include "platform/types.h"

namespace headend {

class Modulator {
 public:
  void powerUp() { *this = {}; }

  // Registers as a driver writes them. True if the active settings have changed.
  bool reset(u16 nrst);
  void constellationCode(u16 code) { code_ = code; }
  void symbolRateByte(std::size_t index, u16 value) {
    word_[index] = static_cast<u8>(value);
  }  // 0 is the highest

  bool inReset() const { return !released_; }
  std::optional<unsigned> constellation() const;  // points: 64, 128, 256; nullopt for an unknown code
  std::uint32_t symbolRate_kBd() const { return inForce_.symbolRate_kBd; }
  BitRate rate() const;

 private:
  struct Settings {
    std::uint32_t symbolRate_kBd = 6875;
    u16 code = 5;
    bool operator==(const Settings&) const = default;
  };

  std::uint32_t programmedRate_kBd() const;

  bool released_ = false;
  u16 code_ = 0;
  std::array<u8, 4> word_{};
  Settings inForce_;
};

}  // namespace headend
