// Packets waiting for an output, oldest first, each with its arrival time. It grows to the largest number of
// waiting packets and does not allocate after that. For the multiplexer.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <vector>

#include "headend/hardware/packet_sink.h"
#include "headend/kernel/kernel.h"

namespace headend {

class PacketRing {
 public:
  struct Waiting {
    Nanos arrival;
    std::array<u8, kTsPacketSize> packet;
  };

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  void clear() { size_ = 0; }

  Waiting& push() {
    if (size_ == slots_.size()) grow();
    return slots_[place(size_++)];
  }
  Waiting& front() { return slots_[first_]; }
  void pop() {
    first_ = place(1);
    --size_;
  }
  void dropNewest(std::size_t count) { size_ -= count; }

 private:
  std::size_t place(std::size_t n) const {
    const std::size_t at = first_ + n;
    return at < slots_.size() ? at : at - slots_.size();
  }
  void grow() {
    std::rotate(slots_.begin(), slots_.begin() + static_cast<std::ptrdiff_t>(first_), slots_.end());
    first_ = 0;
    slots_.resize(std::max<std::size_t>(64, 2 * size_));
  }

  std::vector<Waiting> slots_;
  std::size_t first_ = 0;
  std::size_t size_ = 0;
};

}  // namespace headend
