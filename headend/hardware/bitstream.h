// The sample bitstream of a card's FPGA, and a check of a received bitstream: complete and unaltered, or not.
// Layout, most significant bit of each byte first: 32 bytes 0xFF, "QAMB", payload length (4 bytes, big
// endian), payload, CRC-32 (IEEE 802.3, big endian) over length and payload.
#pragma once

#include <vector>

#include "platform/types.h"

namespace headend {

std::vector<u8> makeSampleBitstream();

// Receives a stream bit by bit, like the shift register of the FPGA.
class BitstreamReceiver {
 public:
  void bit(bool value);
  void refuse() { refused_ = true; }
  bool accepted() const { return !refused_ && complete_; }  // a complete and unaltered bitstream

 private:
  void byte(u8 value);

  std::vector<u8> received_;
  u8 shift_ = 0;
  int bits_ = 0;
  bool refused_ = false;
  bool complete_ = false;
};

}  // namespace headend
