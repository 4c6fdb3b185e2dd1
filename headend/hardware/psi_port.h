// A channel's PSI data port: 204 writes a packet, of which the first 188 carry a byte each in their low half
// and the rest are 0xFFFF. What comes otherwise is a misframed packet, lost and counted.
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
  void complete(Nanos now);

  Multiplexer& output_;
  Violations& violations_;
  std::array<u8, kTsPacket> packet_{};
  std::size_t position_ = 0;
  bool lost_ = false;  // after a misframed packet, until the next data word
};

}  // namespace headend
