// EEPROM 24C16 behind I2C: 2048 bytes in eight blocks of 256, written in pages of 16. The block is part of
// the device's address. Write protection is off. The owner of the model keeps the contents between runs.
#pragma once

#include <array>
#include <optional>
#include <random>

#include "headend/hardware/i2c.h"

namespace headend {

class Eeprom final : public I2cSlave {
 public:
  using Image = std::array<u8, 2048>;

  // Blank: every byte is 0xFF. The seed determines the contents after a power cut.
  Eeprom(Violations& violations, unsigned seed);
  void powerUp() override;  // keeps the contents

  // Sets the contents. Cancels a write cycle in progress.
  void load(const Image& image);
  // Duration of each later write cycle, 0 or more; default 5 ms.
  void writeCycle(Nanos duration) { cycle_ = duration; }
  // The contents. They include a write cycle only after its end.
  const Image& image(Nanos now);
  // Power is cut: in a write cycle in progress, each byte becomes old, new or garbage; no other byte changes.
  // Bytes not confirmed by a stop condition are lost.
  void powerCut(Nanos now);
  // In its write cycle it does not acknowledge its address.
  bool busy(Nanos now) const { return now < cycleEndsAt_; }

 protected:
  bool addressed(u8 addressByte, Nanos now) override;
  bool received(u8 byte, Nanos now) override;
  u8 next(Nanos now) override;
  void accessEnded(bool byStop, Nanos now) override;

 private:
  static constexpr unsigned kPageSize = 16;
  using Page = std::array<std::optional<u8>, kPageSize>;

  void buffer(u8 byte);
  void finishCycle(Nanos now);
  u8 leftBehind(u8 before, u8 after);
  void forgetPage();

  Image image_{};
  std::mt19937 random_;
  Nanos cycle_ = 5'000'000;

  unsigned block_;
  unsigned place_;  // the address counter
  bool placeKnown_;
  bool wordAddressNext_;

  Page page_;           // data of this transfer, then of the write cycle
  unsigned pageStart_;  // the page's address
  unsigned buffered_;   // data bytes of this transfer
  Nanos cycleEndsAt_;
};

}  // namespace headend
