// The duration of each phase of a card's start-up on the modelled controller, and its number of bus accesses.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "headend/hardware/card_registers.h"
#include "headend/kernel/kernel.h"

namespace headend {

class StartupTimeline {
 public:
  struct Phase {
    std::string name;
    Nanos from = 0;
    Nanos until = 0;
    std::uint64_t busAccesses = 0;
  };

  // Ends the previous phase, if one runs. `busAccesses` is the slot's number of accesses so far.
  void begin(std::string name, Nanos now, std::uint64_t busAccesses) {
    end(now, busAccesses);
    phases_.push_back({std::move(name), now, now, 0});
    accessesBefore_ = busAccesses;
    running_ = true;
  }
  void end(Nanos now, std::uint64_t busAccesses) {
    if (!running_) return;
    phases_.back().until = now;
    phases_.back().busAccesses = busAccesses - accessesBefore_;
    running_ = false;
  }

  // The first access to a device begins the phase that starts the device. `busAccesses` includes this access.
  void reached(u32 offset, Nanos now, std::uint64_t busAccesses) {
    for (const auto& [first, name] : kDevicePhases) {
      if (first != offset || !running_) continue;
      const auto isThis = [name = name](const Phase& phase) { return phase.name == name; };
      if (std::none_of(phases_.begin(), phases_.end(), isThis)) begin(name, now, busAccesses - 1);
    }
  }

  bool running() const { return running_; }
  // A phase that still runs is counted until `now`.
  std::vector<Phase> phases(Nanos now, std::uint64_t busAccesses) const {
    StartupTimeline ended = *this;
    ended.end(now, busAccesses);
    return ended.phases_;
  }

 private:
  // The register that a phase accesses first.
  struct DevicePhase {
    u32 first;
    const char* name;
  };
  static constexpr std::array kDevicePhases = {
      DevicePhase{offsetOf("nrst"), "modulator reset"},
      DevicePhase{offsetOf("cdce925_sda"), "clock generator"},
      DevicePhase{offsetOf("ad9775_1_rst"), "DAC calibration"},
      DevicePhase{offsetOf("ad7414_sda"), "temperature sensor 1"},
      DevicePhase{offsetOf("ext_ad7414_sda"), "temperature sensor 2"},
      DevicePhase{offsetOf("qam_mode"), "settings"},
  };

  std::vector<Phase> phases_;
  std::uint64_t accessesBefore_ = 0;
  bool running_ = false;
};

}  // namespace headend
