// The modulator logic of a card's FPGA, and the signal of one channel at the card's RF connector, as an
// analyser shows it, computed only from the data that the devices received on their lines. For the status
// view, the report and management clients.
#pragma once

#include <array>
#include <optional>
#include <string>

#include "headend/hardware/card_board.h"
#include "headend/hardware/multiplexer.h"

namespace headend {

// Two reset lines, the constellation and the symbol-rate word. New values take effect when the reset is
// released, so that four registers change together.
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

struct RfOutput {
  enum class Verdict { kOnAir, kOff, kFaulty };

  std::optional<double> frequency_kHz;    // nullopt if an oscillator does not run
  double level_dBuV = 0;                  // 0 if there is no output
  std::uint32_t symbolRate_kBd = 0;       // as set in the modulator
  std::optional<double> clock_kBd;        // from the clock generator
  std::optional<unsigned> constellation;  // points
  double bitRate = 0;                     // bit/s of the transport stream
  Verdict verdict = Verdict::kOff;
  std::string why;  // the reason in words if off or faulty

  bool operator==(const RfOutput&) const = default;
};

std::optional<std::string> constellationName(const RfOutput& output);  // "64-QAM"
const char* verdictName(RfOutput::Verdict verdict);                    // "on air", "off", "faulty"

// The switches and codes of the FPGA that the output depends on.
struct RfSwitches {
  bool configured = false;
  u16 power = 0;
  bool rfDisabled = false;  // rf0_en
  bool lowerBand = false;   // q1_12v_ctrl, the second oscillator's band
  u16 packetLength = 0;     // 1: packets of 188 bytes
  u16 port = 0;             // the multiplexer's port that feeds the channel
};

RfOutput rfOutput(std::size_t channel, const RfSwitches& switches, const Modulator& modulator,
                  const CardBoard& board, Nanos now);

}  // namespace headend
