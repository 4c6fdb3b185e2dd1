// The chassis's periodic checks of its cards: the cards' own status checks, which raise and end their alarms,
// and the chassis's alarm of a card that does not run.
#pragma once

#include <array>
#include <functional>
#include <optional>
#include <vector>

#include "headend/firmware/alarm_list.h"
#include "headend/firmware/chassis.h"
#include "protocol/words.h"

namespace headend {

class StatusChecks {
 public:
  static constexpr int kPriority = 231;

  // `state` gives the state of a slot's card.
  StatusChecks(Kernel& kernel, Chassis& chassis, AlarmList& alarms,
               std::function<protocol::CardState(int slot)> state)
      : kernel_(kernel), chassis_(chassis), alarms_(alarms), state_(std::move(state)) {}

  // What the last check of a card found.
  struct Pass {
    Nanos at = 0;
    u8 lostInputs = 0;                                 // bit 0: of channel 1, bit 1: of channel 2
    std::optional<std::array<i32, 2>> temperatures{};  // degrees Celsius, by sensor
  };

  // Checks each of these slots (0..5) once per period; 0: never. Cards are checked while they run, each by a
  // task of its own, so a card with a blocked bus does not delay other cards' alarms. A check holds the
  // processor for some milliseconds while the card reads its sensor; PSI packets wait meanwhile.
  // With `readsSensors` both sensors of the card are read after its check.
  void start(const std::vector<int>& slots, Nanos period, bool readsSensors);

  const std::optional<Pass>& last(int slot) const { return passes_[static_cast<std::size_t>(slot)]; }

 private:
  void check(int slot, int ticks);
  Pass passOf(int slot) const;
  void reportState(int slot);

  Kernel& kernel_;
  Chassis& chassis_;
  AlarmList& alarms_;
  std::function<protocol::CardState(int slot)> state_;
  bool readsSensors_ = false;
  std::array<std::optional<Pass>, MAX_BOARD_NUM> passes_;
};

}  // namespace headend
