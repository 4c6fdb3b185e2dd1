// Counts the packets of a stream by PID: their rates over whole seconds, errors of their continuity counters,
// and whether any had a PCR or was scrambled.
#pragma once

#include <array>
#include <memory>
#include <vector>

#include "headend/kernel/kernel.h"
#include "mpeg/packet.h"
#include "protocol/stream_records.h"

namespace headend {

class PidMeter {
 public:
  void packet(mpeg::PacketView packet);
  // Packets whose content is not known.
  void add(u16 pid, std::uint64_t packets) { of(pid).count.packets += packets; }
  // A second, or what was measured as one, is over. A PID's rate is known from the first one on in which it
  // was counted from the start.
  void second(Nanos took);
  // All counts are 0 again. The next packets still have to continue those before.
  void reset();

  // Those with packets, ascending by PID.
  std::vector<protocol::PidCount> counts() const;

 private:
  struct Pid {
    protocol::PidCount count;
    std::uint64_t before = 0;  // packets before this second
    bool isWhole = false;      // this second
    bool isKnown = false;      // `last` was received
    bool isRepeated = false;   // it was received twice
    mpeg::Packet last;
  };

  Pid& of(u16 pid);
  static void checkContinuity(Pid& pid, mpeg::PacketView packet);

  std::array<std::unique_ptr<Pid>, kPids> pids_;
  bool isFirstSecond_ = true;
};

}  // namespace headend
