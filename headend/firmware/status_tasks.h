// The chassis's status tasks: once a second each calls the status check of its slot's card, as long as that
// runs. One a slot, so that a card whose bus hangs holds up no other card's alarms.
#pragma once

#include <functional>
#include <vector>

#include "headend/firmware/chassis.h"

namespace headend {

// Below the send tasks (212), the back end (220) and the menu (230).
inline constexpr int kStatusPriority = 231;

void startStatusTasks(Kernel& kernel, const Chassis& chassis, const std::vector<int>& slots,
                      const std::function<bool(int slot)>& runs);

}  // namespace headend
