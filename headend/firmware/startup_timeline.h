// How long each phase of a card's start-up takes on the modelled controller, and how many bus accesses it
// makes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

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

  // Ends the phase before, if one runs. `busAccesses` counts the slot's accesses so far.
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

  bool running() const { return running_; }
  const std::vector<Phase>& phases() const { return phases_; }

 private:
  std::vector<Phase> phases_;
  std::uint64_t accessesBefore_ = 0;
  bool running_ = false;
};

}  // namespace headend
