// The chassis's status tasks: each calls the status check of its slot's card once per period while the card
// runs. One task per slot, so a card with a blocked bus does not delay other cards' alarms. A check holds the
// processor for some milliseconds while the card reads its sensor; PSI packets wait meanwhile.
#pragma once

#include <functional>
#include <vector>

#include "headend/firmware/chassis.h"

namespace headend {

// Lower priority than the send tasks (212), the back end (220) and the menu (230).
inline constexpr int kStatusPriority = 231;

void startStatusTasks(Kernel& kernel, const Chassis& chassis, const std::vector<int>& slots, Nanos period,
                      const std::function<bool(int slot)>& runs);

}  // namespace headend
