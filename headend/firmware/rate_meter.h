// Bit rates over the last whole virtual second, of channels and inputs, for views and management software.
#pragma once

#include <array>
#include <map>
#include <utility>

#include "headend/hardware/multiplexer.h"
#include "headend/hardware/pid_router.h"

namespace headend {

class RateMeter {
 public:
  struct Rates {        // bits per second
    double input = 0;   // from the router
    double routed = 0;  // the part of it that was sent
    double psi = 0;
    double null = 0;
    double total = 0;
  };
  using Place = std::pair<int, int>;  // slot and port

  void watchOutput(int slot, int port, Multiplexer& output) { outputs_[{slot, port}].source = &output; }
  void watchInput(int slot, int port, const PidRouter& router) { inputs_[{slot, port}].source = &router; }

  // Call it often; it measures once a second.
  void update(Nanos now) {
    if (now - measuredAt_ < kSecond) return;
    const double bitsASecond =
        static_cast<double>(kTsPacketSize) * 8 * 1e9 / static_cast<double>(now - measuredAt_);
    measuredAt_ = now;
    const auto rate = [bitsASecond](std::uint64_t count, std::uint64_t before) {
      return static_cast<double>(count - before) * bitsASecond;
    };
    for (auto& [place, meter] : outputs_) {
      meter.source->advance(now);
      const Multiplexer::Counts& counts = meter.source->counts();
      const Multiplexer::Counts before = std::exchange(meter.before, counts);
      meter.rates = {.input = rate(counts.offered, before.offered),
                     .routed = rate(counts.routed, before.routed),
                     .psi = rate(counts.psi, before.psi),
                     .null = rate(counts.null, before.null)};
      meter.rates.total = meter.rates.routed + meter.rates.psi + meter.rates.null;
    }
    for (auto& [place, meter] : inputs_) {
      const std::uint64_t packets = meter.source->input(place.first, place.second)->packets;
      meter.rate = rate(packets, std::exchange(meter.before, packets));
    }
  }

  const Rates& output(int slot, int port) const { return outputs_.at({slot, port}).rates; }
  Nanos measuredAt() const { return measuredAt_; }
  double input(int slot, int port) const { return inputs_.at({slot, port}).rate; }

 private:
  struct Output {
    Multiplexer* source = nullptr;
    Multiplexer::Counts before;
    Rates rates;
  };
  struct Input {
    const PidRouter* source = nullptr;
    std::uint64_t before = 0;
    double rate = 0;
  };
  std::map<Place, Output> outputs_;
  std::map<Place, Input> inputs_;
  Nanos measuredAt_ = 0;
};

}  // namespace headend
