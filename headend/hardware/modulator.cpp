#include "headend/hardware/modulator.h"

#include <algorithm>

namespace headend {
namespace {

constexpr u16 kBothReleased = 3;

// Bits a symbol; 0 for a code that nobody knows.
unsigned bitsOf(u16 code) {
  return code >= 5 && code <= 7 ? code + 1U : 0;
}

}  // namespace

bool Modulator::reset(u16 nrst) {
  const bool wasReleased = released_;
  released_ = (nrst & kBothReleased) == kBothReleased;
  if (!released_ || wasReleased) return false;
  const Settings before = inForce_;
  inForce_ = {.symbolRate_kBd = programmedRate_kBd(), .code = code_};
  return inForce_ != before;
}

std::optional<unsigned> Modulator::constellation() const {
  const unsigned bits = bitsOf(inForce_.code);
  if (bits == 0) return {};
  return 1U << bits;
}

// The word is 2^26 * 1000 over the rate in kBd, which is a whole number; a modulator that was told none runs
// with 6875 kBd.
std::uint32_t Modulator::programmedRate_kBd() const {
  std::uint32_t word = 0;
  for (const u8 byte : word_) word = word << 8 | byte;
  if (word == 0) return Settings{}.symbolRate_kBd;
  constexpr std::uint64_t kScale = (std::uint64_t{1} << 26) * 1000;
  return static_cast<std::uint32_t>((kScale + word / 2) / word);
}

// Packets keep the pace of 64-QAM where the code says nothing.
BitRate Modulator::rate() const {
  constexpr std::uint32_t kFastest_kBd = 20'000;  // the logic does not support a faster clock
  const unsigned bits = bitsOf(inForce_.code);
  return BitRate::ofModulation(std::min(inForce_.symbolRate_kBd, kFastest_kBd), bits == 0 ? 6 : bits);
}

}  // namespace headend
