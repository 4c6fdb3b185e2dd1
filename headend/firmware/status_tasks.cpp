#include "headend/firmware/status_tasks.h"

#include <fmt/format.h>

#include <algorithm>

namespace headend {

void startStatusTasks(Kernel& kernel, const Chassis& chassis, const std::vector<int>& slots, Nanos period,
                      const std::function<bool(int slot)>& runs) {
  if (period == 0) return;
  const int ticks = std::max(1, static_cast<int>(period * kernel.settings().tickHz / kSecond));
  for (const int slot : slots) {
    const auto check = [&kernel, &chassis, slot, runs, ticks] {
      kernel.delay(slot * ticks / MAX_BOARD_NUM);  // slots are spread over the period
      for (;;) {
        kernel.delay(ticks);
        const chassis::card* card = chassis.slot(slot).descriptor;
        if (runs(slot) && card->statusCheck != nullptr) card->statusCheck(static_cast<u8>(slot));
      }
    };
    kernel.spawn(fmt::format("tStatus{}", slot + 1), kStatusPriority, check, slot);
  }
}

}  // namespace headend
