// The chassis's periodic checks of its cards: the cards' own status checks, which raise and end their alarms,
// and the chassis's alarm of a card that does not run.
#pragma once

#include <functional>
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

  // Checks each of these slots (0..5) once per period; 0: never. Cards are checked while they run, each by a
  // task of its own, so a card with a blocked bus does not delay other cards' alarms. A check holds the
  // processor for some milliseconds while the card reads its sensor; PSI packets wait meanwhile.
  void start(const std::vector<int>& slots, Nanos period);

 private:
  void check(int slot, int ticks);
  void reportState(int slot);

  Kernel& kernel_;
  Chassis& chassis_;
  AlarmList& alarms_;
  std::function<protocol::CardState(int slot)> state_;
};

}  // namespace headend
