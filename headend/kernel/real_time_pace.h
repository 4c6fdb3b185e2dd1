// The pace of a run in real time: virtual time follows the wall clock, and input from the host is received
// meanwhile.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>

#include "headend/kernel/network.h"

namespace headend {

// Sleeps until the wall clock reaches virtual time; receives datagrams and signals meanwhile.
class RealTimePace final : public Pace {
 public:
  RealTimePace(Network& network, const std::atomic<bool>& interrupted)
      : network_(network), interrupted_(interrupted), start_(Clock::now()) {}

  void waitUntil(Nanos virtualTime) override {
    while (left(virtualTime) > 0 && !interrupted_) network_.pollHost(left(virtualTime));
    network_.pollHost(0);
  }

  Nanos idleUntil(Nanos virtualTime) override {
    while (left(virtualTime) > 0 && !interrupted_) {
      if (network_.pollHost(left(virtualTime))) return virtualTime - left(virtualTime);
    }
    return virtualTime;
  }

 private:
  using Clock = std::chrono::steady_clock;

  Nanos left(Nanos virtualTime) const {
    const Clock::duration wait = start_ + std::chrono::nanoseconds(virtualTime) - Clock::now();
    return std::max<Nanos>(0, std::chrono::nanoseconds(wait).count());
  }

  Network& network_;
  const std::atomic<bool>& interrupted_;
  Clock::time_point start_;
};

}  // namespace headend
