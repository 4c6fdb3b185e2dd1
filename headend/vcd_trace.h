// The registers of the cards' windows over virtual time, as a VCD file (IEEE 1364, four-state value change
// dump) for waveform viewers and protocol decoders. The headend reports every access to it if --trace is
// given.
#pragma once

#include <array>
#include <span>
#include <string>
#include <vector>

#include "headend/firmware/log.h"
#include "headend/hardware/card_registers.h"

namespace headend {

class VcdTrace {
 public:
  // A file of the registers of these slots (from 0) that match any of the globs, as "cdce925_*" or
  // "slot1.att_*"; without a glob all of them. All begin with 0, as in an FPGA just configured. Throws
  // std::runtime_error if the file cannot be opened.
  VcdTrace(const std::string& file, std::span<const int> slots, std::span<const std::string> globs);

  // Whether a glob matches a register of one of these slots.
  static bool matches(const std::string& glob, std::span<const int> slots);

  // Reports a register's current value. Written if it is traced and has changed; for a line, bit 0 is used.
  void note(int slot, u32 offset, u16 value, Nanos now);

  // The end of the run: viewers show the last values until here. False if the file could not be written
  // completely.
  bool finish(Nanos now);

 private:
  struct Signal {
    std::array<char, 3> code{};  // its short name in the file; empty: not traced
    u16 value = 0;
  };

  std::string header(std::span<const int> slots, std::span<const std::string> globs);
  void writeTime(Nanos now);

  OutputFile file_;
  Nanos written_ = 0;                                               // the time reached in the file
  std::vector<std::array<Signal, kCardRegisters.size()>> signals_;  // by slot, from 0
};

}  // namespace headend
