#include "headend/hardware/card_fpga.h"

namespace headend {
namespace {

constexpr u32 kQamMode = offsetOf("qam_mode");
constexpr u32 kSymbolRateFirst = offsetOf("rf_off_hh");
constexpr u32 kSymbolRateLast = offsetOf("rf_off_ll");
constexpr u32 kPsiData0 = offsetOf("PsiData0");
constexpr u32 kPsiReady0 = offsetOf("PsiRdy0");
constexpr u32 kPsiData1 = offsetOf("PsiData1");
constexpr u32 kPsiReady1 = offsetOf("PsiRdy1");

constexpr u16 kBlank = 0xFFFF;

// At reset the modulator runs with 6875 kBd and 64-QAM.
constexpr std::uint32_t kResetSymbolRate_kBd = 6875;
constexpr unsigned kResetBitsPerSymbol = 6;

unsigned bitsPerSymbol(u16 code) {
  switch (code) {
    case 6:
      return 7;  // 128-QAM
    case 7:
      return 8;  // 256-QAM
    default:
      return kResetBitsPerSymbol;
  }
}

}  // namespace

CardFpga::CardFpga(const FpgaConfiguration::Settings& settings, Violations& violations)
    : configuration_(settings, violations),
      psiPorts_{PsiPort(outputs_[0], violations), PsiPort(outputs_[1], violations)} {
  configuration_.onChange([this](bool configured, Nanos now) {
    if (configured) {
      startUp(now);
    } else {
      becomeBlank(now);
    }
    if (onConfiguration_) onConfiguration_(configured, now);
  });
}

void CardFpga::becomeBlank(Nanos now) {
  for (Multiplexer& output : outputs_) output.stop(now);
}

void CardFpga::startUp(Nanos now) {
  cells_.fill(0);
  for (PsiPort& port : psiPorts_) port.reset();
  for (Multiplexer& output : outputs_) output.start(now, programmedRate());
}

u16 CardFpga::read(u32 offset, Nanos now) {
  if (!configuration_.done()) return kBlank;
  const u16 value = level(offset, now);
  if (onRegister_) onRegister_(offset, value, now);
  return value;
}

u16 CardFpga::level(u32 offset, Nanos now) {
  switch (offset) {
    case kPsiReady0:
      return outputs_[0].psiHasRoom(now) ? 1 : 0;
    case kPsiReady1:
      return outputs_[1].psiHasRoom(now) ? 1 : 0;
    default:
      return cells_[offset / 2];
  }
}

void CardFpga::write(u32 offset, u16 value, Nanos now) {
  if (!configuration_.done()) return;
  cells_[offset / 2] = value;
  if (offset == kPsiData0) {
    psiPorts_[0].write(value, now);
  } else if (offset == kPsiData1) {
    psiPorts_[1].write(value, now);
  } else if (offset >= kQamMode && offset <= kSymbolRateLast) {
    applyModulation(now);
  }
  if (onRegister_) onRegister_(offset, value, now);
}

void CardFpga::applyModulation(Nanos now) {
  for (Multiplexer& output : outputs_) output.setRate(now, programmedRate());
}

// The symbol-rate word is 2^26 * 1000 over the rate in kBd, a byte a register; the rate is a whole number of
// kBd.
BitRate CardFpga::programmedRate() const {
  std::uint32_t word = 0;
  for (u32 offset = kSymbolRateFirst; offset <= kSymbolRateLast; offset += 2) {
    word = word << 8 | (cells_[offset / 2] & 0xFFU);
  }
  std::uint32_t rate_kBd = kResetSymbolRate_kBd;
  if (word != 0) {
    constexpr std::uint64_t kScale = (std::uint64_t{1} << 26) * 1000;
    rate_kBd = static_cast<std::uint32_t>((kScale + word / 2) / word);
  }
  return BitRate::ofModulation(rate_kBd, bitsPerSymbol(cells_[kQamMode / 2]));
}

void CardFpga::advanceOutputs(Nanos now) {
  for (Multiplexer& output : outputs_) output.advance(now);
}

const char* CardFpga::registerName(u32 offset) const {
  return cardRegister(offset).name;
}

}  // namespace headend
