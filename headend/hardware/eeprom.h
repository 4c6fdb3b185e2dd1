// EEPROM 24C16 behind I2C: 2048 bytes in eight blocks of 256, written in pages of 16. The block is part of
// the device's address. Write protection is off. The contents outlive a run: whoever owns the model keeps
// them.
#pragma once

#include <array>
#include <optional>
#include <random>

#include "headend/hardware/i2c_slave.h"

namespace headend {

class Eeprom final : public I2cSlave {
 public:
  using Image = std::array<u8, 2048>;

  // Blank: every byte is 0xFF. The seed decides what a power cut leaves behind.
  Eeprom(Violations& violations, unsigned seed);

  // The contents from now on. A write cycle that runs is forgotten.
  void load(const Image& image);
  // How long each later write cycle takes, 0 or more; 5 ms unless set.
  void writeCycle(Nanos duration) { cycle_ = duration; }
  // The contents. A write cycle shows once it is over.
  const Image& image(Nanos now);
  // The power goes: a write cycle that runs leaves each of its bytes old, new or garbage, and no other byte
  // changes. Bytes that no stop has confirmed are lost.
  void powerCut(Nanos now);
  // In its write cycle: answers no address.
  bool busy(Nanos now) const { return now < cycleEndsAt_; }

 protected:
  bool addressed(u8 addressByte, Nanos now) override;
  bool received(u8 byte, Nanos now) override;
  u8 next(Nanos now) override;
  void started(Nanos now) override;
  void stopped(Nanos now) override;

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

  unsigned block_ = 0;
  unsigned place_ = 0;  // the address counter
  bool placeKnown_ = false;
  bool wordAddressNext_ = false;

  Page page_;               // data of this transfer, then of the write cycle
  unsigned pageStart_ = 0;  // the page's address
  unsigned buffered_ = 0;   // data bytes of this transfer
  Nanos cycleEndsAt_ = kLongAgo;
};

}  // namespace headend
