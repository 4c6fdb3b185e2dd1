// The sample bitstream of a card's FPGA, and a check of a received bitstream: complete and unaltered, or not.
// Layout, most significant bit of each byte first: 32 bytes 0xFF, "QAMB", payload length (4 bytes, big
// endian), payload, CRC-32 (IEEE 802.3, big endian) over length and payload.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/types.h"

namespace headend {

std::vector<u8> makeSampleBitstream();

// Receives a stream bit by bit, like the shift register of the FPGA.
class BitstreamReceiver {
 public:
  void restart() { *this = BitstreamReceiver(); }
  void bit(bool value);
  void refuse() { state_ = State::kRefused; }
  bool accepted() const { return state_ == State::kAccepted; }

 private:
  enum class State { kPreamble, kSync, kLength, kPayload, kCrc, kAccepted, kRefused };
  void byte(u8 value);
  void enter(State next) {
    state_ = next;
    position_ = 0;
  }

  State state_ = State::kPreamble;
  u8 shift_ = 0;
  int bits_ = 0;
  std::uint32_t position_ = 0;  // within the current field
  std::uint32_t length_ = 0;
  std::uint32_t crc_ = 0xFFFFFFFF;
  std::uint32_t expected_ = 0;
};

}  // namespace headend
