// The configuration of a card's FPGA: the main board's port to its pins, and the logic of the part behind
// them, which takes a bitstream.
#pragma once

#include <functional>
#include <random>

#include "headend/hardware/bitstream.h"
#include "headend/hardware/device.h"

namespace headend {

// A write guard, and five registers that drive and read the pins: request, clock and data in, status, done.
// After power-up and after a request the part is blank.
class FpgaConfiguration final : public BusDevice {
 public:
  static constexpr u32 kSize = 16;  // of its registers, in bytes

  struct Settings {
    bool anyBitstream = false;  // accept any stream of whole bytes, not only one with its own length and CRC
    unsigned seed = 0;          // for the variation of the part's status times
  };

  FpgaConfiguration(const Settings& settings, Violations& violations);

  u16 read(u32 offset, Nanos now) override;
  void write(u32 offset, u16 value, Nanos now) override;
  std::string_view registerName(u32 offset) const override;

  // Called when the part becomes blank, and when it starts configured.
  void onChange(std::function<void(bool configured, Nanos now)> hook) { onChange_ = std::move(hook); }

  bool done() const { return done_; }
  unsigned attempts() const { return attempts_; }
  // The part becomes blank, as at a dip of its supply.
  void lose(Nanos now);
  // The slot's start-up has ended: a guard that is still open then stays open permanently.
  void loaderLeft();

 private:
  void request(u16 code, Nanos now);
  void clockRise(Nanos now);
  void data(bool level);
  bool status(Nanos now) const { return code_ == kRelease && now >= readyAt_; }  // low in reset
  bool streamComplete() const;

  static constexpr u16 kStart = 0x3C5A;
  static constexpr u16 kRelease = 0xC3A5;

  Settings settings_;
  Violations& violations_;
  std::function<void(bool, Nanos)> onChange_;
  std::mt19937 spread_;

  bool open_ = false;  // the guard
  u16 code_ = 0;       // of the last request
  bool clock_ = false;
  bool data_ = false;
  bool done_ = false;
  Nanos readyAt_ = 0;
  unsigned attempts_ = 0;
  BitstreamReceiver receiver_;
  std::uint64_t clocks_ = 0;
  std::uint64_t clocksAfterStream_ = 0;  // since the receiver accepted
  std::uint64_t clocksSinceData_ = 0;    // since the data line was last driven
};

}  // namespace headend
