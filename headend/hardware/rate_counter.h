// The rate counters of one output: bytes and null packets that leave while the gate is open. They start from
// 0 when the gate opens, stop when it closes, and continue while they are read: 24 and 16 bits wide.
#pragma once

#include "headend/hardware/multiplexer.h"

namespace headend {

class RateCounter {
 public:
  void gate(bool open, const Multiplexer::Counts& counts) {
    if (open == open_) return;
    if (open) {
      begin_ = counts;
    } else {
      end_ = counts;
    }
    open_ = open;
  }
  u32 bytes(const Multiplexer::Counts& counts) const {
    return static_cast<u32>((now(counts).total() - begin_.total()) * kTsPacketSize) & 0xFFFFFF;
  }
  u16 nullPackets(const Multiplexer::Counts& counts) const {
    return static_cast<u16>(now(counts).null - begin_.null);
  }

 private:
  const Multiplexer::Counts& now(const Multiplexer::Counts& counts) const { return open_ ? counts : end_; }

  bool open_ = false;
  Multiplexer::Counts begin_;
  Multiplexer::Counts end_;
};

}  // namespace headend
