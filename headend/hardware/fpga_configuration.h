// The configuration logic of the card's FPGA, at its pins: configuration request, status, clock and data in,
// done. The main board's port drives the pins. After power-up and after a request the part is blank.
#pragma once

#include <functional>
#include <random>

#include "headend/hardware/bitstream.h"
#include "headend/hardware/violations.h"
#include "headend/kernel/kernel.h"

namespace headend {

class FpgaConfiguration {
 public:
  struct Settings {
    bool anyBitstream = false;  // accept any stream of whole bytes, not only one with its own length and CRC
    unsigned seed = 0;          // for the variation of the part's status times
  };

  FpgaConfiguration(const Settings& settings, Violations& violations);

  // Called when the part becomes blank, and when it starts configured.
  void onChange(std::function<void(bool configured, Nanos now)> hook) { onChange_ = std::move(hook); }

  void request(Nanos now);
  void release(Nanos now);
  void data(bool level);
  void clockRise(Nanos now);

  bool status(Nanos now) const { return released_ && now >= readyAt_; }  // low in configuration reset
  bool done() const { return done_; }
  unsigned attempts() const { return attempts_; }

 private:
  bool streamComplete() const;

  Settings settings_;
  Violations& violations_;
  std::function<void(bool, Nanos)> onChange_;
  std::mt19937 spread_;

  bool released_ = false;
  Nanos readyAt_ = 0;
  bool data_ = false;
  bool done_ = false;
  unsigned attempts_ = 0;
  BitstreamReceiver receiver_;
  std::uint64_t clocks_ = 0;
  std::uint64_t clocksAfterStream_ = 0;  // since the receiver accepted
  std::uint64_t clocksSinceData_ = 0;    // since the data line was last driven
};

}  // namespace headend
