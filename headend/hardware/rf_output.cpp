#include "headend/hardware/rf_output.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>

namespace headend {
namespace {

constexpr u16 kBothReleased = 3;

// Bits per symbol; 0 for an unknown code.
unsigned bitsOf(u16 code) {
  return code >= 5 && code <= 7 ? code + 1U : 0;
}

constexpr double kMixerOffset_Hz = 4e6;
constexpr double kChannelSpacing_Hz = 8e6;
constexpr double kClocksPerSymbol = 8;
constexpr double kBandLimit_Hz = 2600e6;   // the upper limit of the second oscillator's lower band
constexpr double kClockTolerance = 50e-6;  // limit for a receiver's symbol-rate tracking
constexpr double kFullLevel_dBuV = 115;
constexpr u16 kAllSupplies = 15;

// The board's gain over its gain at the upper end, by the frequency of channel 1, as measured on the card:
// both channels pass one amplifier.
struct Gain {
  double upTo_kHz;
  double dB;
};
constexpr std::array kBoardGain = {Gain{100e3, 3}, Gain{200e3, 4}, Gain{400e3, 3}, Gain{500e3, 2},
                                   Gain{600e3, 1}};

double boardGain_dB(double frequency_kHz) {
  for (const Gain& band : kBoardGain) {
    if (frequency_kHz <= band.upTo_kHz) return band.dB;
  }
  return 0;
}

// Reasons to be off the air, in the order in which a technician would look for them; empty when there is
// none.
std::string offReason(const RfSwitches& switches) {
  if (!switches.configured) return "the FPGA is not configured";
  if (switches.power == 0) return "the power is off (power 0)";
  if (switches.rfDisabled) return "the modulation is switched off (rf0_en 1)";
  return {};
}

std::string oscillatorFault(const RfSwitches& switches, const CardBoard& board, Nanos now) {
  const ClockOutput first = board.firstOscillator.output(now);
  if (!first.hz) return "first oscillator: " + first.why;
  const ClockOutput second = board.secondOscillator.output(now);
  if (!second.hz) return "second oscillator: " + second.why;
  if ((*second.hz <= kBandLimit_Hz) != switches.lowerBand) {
    return fmt::format("the second oscillator does not reach {:.4f} MHz in its {} band (q1_12v_ctrl {})",
                       *second.hz / 1e6, switches.lowerBand ? "lower" : "upper", switches.lowerBand ? 1 : 0);
  }
  return {};
}

std::string clockFault(const RfOutput& output, const CardBoard& board, Nanos now) {
  if (!output.clock_kBd) return "clock generator: " + board.clockGenerator.y3(now).why;
  if (std::abs(*output.clock_kBd / output.symbolRate_kBd - 1) > kClockTolerance) {
    return fmt::format("the clock gives {:.3f} kBd, the modulator is set to {} kBd", *output.clock_kBd,
                       output.symbolRate_kBd);
  }
  return {};
}

std::string faultReason(std::size_t channel, const RfOutput& output, const RfSwitches& switches,
                        const Modulator& modulator, const CardBoard& board, Nanos now) {
  if (switches.power != kAllSupplies) return fmt::format("some supplies are off (power {})", switches.power);
  if (modulator.inReset()) return "the modulator is held in reset";
  if (!output.constellation) return "the constellation code is unknown";
  if (switches.packetLength != 1) return fmt::format("packet length code {}", switches.packetLength);
  if (switches.port != channel) return fmt::format("fed by the multiplexer's port {}", switches.port);
  if (std::string fault = oscillatorFault(switches, board, now); !fault.empty()) return fault;
  if (std::string fault = clockFault(output, board, now); !fault.empty()) return fault;
  return board.dac.fault();
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
  return bits == 0 ? std::nullopt : std::optional(1U << bits);
}

// The word is 2^26 * 1000 over the rate in kBd, which is a whole number; a modulator without one runs at 6875
// kBd.
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

std::optional<std::string> constellationName(const RfOutput& output) {
  if (!output.constellation) return {};
  return fmt::format("{}-QAM", *output.constellation);
}

const char* verdictName(RfOutput::Verdict verdict) {
  constexpr std::array kNames = {"on air", "off", "faulty"};
  return kNames[static_cast<std::size_t>(verdict)];
}

RfOutput rfOutput(std::size_t channel, const RfSwitches& switches, const Modulator& modulator,
                  const CardBoard& board, Nanos now) {
  RfOutput output;
  output.why = offReason(switches);
  if (!switches.configured) return output;
  output.symbolRate_kBd = modulator.symbolRate_kBd();
  output.constellation = modulator.constellation();
  output.bitRate = modulator.rate().perSecond();
  if (const auto clock = board.clockGenerator.y3(now).hz) output.clock_kBd = *clock / kClocksPerSymbol / 1e3;

  const auto first = board.firstOscillator.output(now).hz;
  const auto second = board.secondOscillator.output(now).hz;
  output.level_dBuV = kFullLevel_dBuV - board.attenuator.dB();
  if (first && second) {
    const double carrier1_Hz = *second - *first - kMixerOffset_Hz;
    output.level_dBuV += boardGain_dB(carrier1_Hz / 1e3);
    output.frequency_kHz = (carrier1_Hz + static_cast<double>(channel) * kChannelSpacing_Hz) / 1e3;
  }

  if (!output.why.empty()) return output;
  output.why = faultReason(channel, output, switches, modulator, board, now);
  output.verdict = output.why.empty() ? RfOutput::Verdict::kOnAir : RfOutput::Verdict::kFaulty;
  return output;
}

}  // namespace headend
