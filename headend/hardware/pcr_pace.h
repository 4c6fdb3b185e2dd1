// How fast the packets of a file play: the pace between successive PCRs of one PID, found packet by packet in
// memory of a fixed size.
#pragma once

#include <optional>

#include "headend/hardware/ts_input.h"
#include "mpeg/packet.h"

namespace headend {

// A number of packets in a number of units of 1/27 ns; no pace if there are no packets.
struct PacketPace {
  u64 packets = 0;
  u64 units = 0;
  u64 of(u64 n) const { return n * (units / packets) + n * (units % packets) / packets; }
};

// So many packets at one pace.
struct PacedRun {
  u64 packets = 0;
  PacketPace pace;
};

// Where PCRs decrease or jump by more than a second, the pace of the interval before continues. A single PCR
// that is broken between two that fit each other is left out; so a PCR counts once the next one is known.
class PcrPace {
 public:
  struct Pcr {
    u64 packet = 0;
    u64 ticks = 0;
  };

  // `first` is the pace before the first interval; none if it is not known yet.
  explicit PcrPace(PacketPace first = {}) : pace_(first) {}

  // The next PCR of the PID. Returns the packets whose pace is now known: from the end of the last run to a
  // PCR, in order. A run has no pace while none is known.
  std::optional<PacedRun> push(const Pcr& pcr);
  // After the last PCR; the packets behind it play at `pace()`.
  std::optional<PacedRun> finish();

  const PacketPace& pace() const { return pace_; }
  const std::optional<Pcr>& last() const { return kept_; }  // that counts
  u64 longest_ticks() const { return longest_ticks_; }      // interval so far

 private:
  PacedRun advanceTo(const Pcr& pcr);

  PacketPace pace_;
  std::optional<Pcr> kept_;
  std::optional<Pcr> undecided_;
  u64 longest_ticks_ = 0;
};

}  // namespace headend
