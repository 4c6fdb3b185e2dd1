// A channel's PSI data port: 204 writes per packet. The first 188 have a byte each in their low half; the
// rest are 0xFFFF. Any other sequence is a misframed packet, which is lost and counted.
#pragma once

#include <array>

#include "headend/hardware/multiplexer.h"
#include "headend/hardware/violations.h"

namespace headend {

class PsiPort {
 public:
  PsiPort(Multiplexer& output, Violations& violations) : output_(output), violations_(violations) {}

  void reset();
  void write(u16 word, Nanos now);

 private:
  // A misframed packet is discarded to its end, so that it is counted once.
  enum class Lost { kNo, kUntilFiller, kUntilData };

  void misframed(Lost lost);
  void complete(Nanos now);

  Multiplexer& output_;
  Violations& violations_;
  std::array<u8, kTsPacketSize> packet_{};
  std::size_t position_ = 0;
  Lost lost_ = Lost::kNo;
};

}  // namespace headend
