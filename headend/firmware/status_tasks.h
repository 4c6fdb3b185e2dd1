// The chassis's status tasks: once a period each calls the status check of its slot's card, as long as that
// runs. One a slot, so that a card whose bus hangs holds up no other card's alarms. A pass holds the
// processor for some milliseconds, while the card reads its sensor: PSI packets wait as long.
#pragma once

#include <functional>
#include <vector>

#include "headend/firmware/chassis.h"

namespace headend {

// Below the send tasks (212), the back end (220) and the menu (230).
inline constexpr int kStatusPriority = 231;

void startStatusTasks(Kernel& kernel, const Chassis& chassis, const std::vector<int>& slots, Nanos period,
                      const std::function<bool(int slot)>& runs);

}  // namespace headend
