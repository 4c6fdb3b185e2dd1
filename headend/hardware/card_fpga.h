// The FPGA of a card: blank until it is configured, then a window of registers that controls the two outputs.
#pragma once

#include <array>

#include "headend/hardware/fpga_configuration.h"
#include "headend/hardware/rf_output.h"

namespace headend {

class CardFpga final : public BusDevice {
 public:
  static constexpr u32 kWindowSize = kCardWindowSize;

  CardFpga(const FpgaConfiguration::Settings& settings, Violations& violations);

  u16 read(u32 offset, Nanos now) override;
  void write(u32 offset, u16 value, Nanos now) override;
  std::string_view registerName(u32 offset) const override { return cardRegister(offset).name; }

  FpgaConfiguration& configuration() { return configuration_; }
  Multiplexer& output(std::size_t channel) { return outputs_[channel]; }
  void advanceOutputs(Nanos now);
  CardBoard& board() { return board_; }
  RfOutput rf(std::size_t channel, Nanos now) const;

  // Called when a configuration begins (false) and when it is complete (true).
  void onConfiguration(std::function<void(bool complete, Nanos now)> hook) {
    onConfiguration_ = std::move(hook);
  }

  // Called with each register's value after an access, and with a bus line when its level has changed.
  void onRegister(std::function<void(u32 offset, u16 value, Nanos now)> hook) {
    onRegister_ = std::move(hook);
  }

  // Returns whether a channel's input is lost; without this function no input is lost.
  void onInputLost(std::function<bool(std::size_t channel, Nanos now)> hook) {
    onInputLost_ = std::move(hook);
  }

 private:
  // The bytes and null packets that leave an output while the gate is open. They start from 0 when the gate
  // opens, stop when it closes, and continue while they are read.
  struct RateCounter {
    bool open = false;
    Multiplexer::Counts begin;
    Multiplexer::Counts end;
  };

  u16 level(u32 offset, Nanos now);
  u16 rateCount(u32 offset, Nanos now);
  u16 lostInputs(Nanos now) const;
  void act(u32 offset, u16 before, u16 value, Nanos now);
  void setFilter(std::size_t channel, Nanos now);
  void openRateGate(bool open, Nanos now);
  void startUp(Nanos now);
  u16 cell(u32 offset) const { return cells_[offset / 2]; }

  FpgaConfiguration configuration_;
  std::function<void(bool, Nanos)> onConfiguration_;
  std::function<void(u32, u16, Nanos)> onRegister_;
  std::function<bool(std::size_t, Nanos)> onInputLost_;
  Violations& violations_;
  CardBoard board_;
  Modulator modulator_;
  std::array<Multiplexer, MAX_QAM_OUT_NUM> outputs_;
  std::array<PsiPort, MAX_QAM_OUT_NUM> psiPorts_;
  std::array<RateCounter, MAX_QAM_OUT_NUM> rateCounters_;
  std::array<u16, kWindowSize / 2> cells_{};
};

}  // namespace headend
