#include "headend/firmware/status_tasks.h"

#include <fmt/format.h>

namespace headend {

void startStatusTasks(Kernel& kernel, const Chassis& chassis, const std::vector<int>& slots,
                      const std::function<bool(int slot)>& runs) {
  const int ticksOfSecond = kernel.settings().tickHz;
  for (const int slot : slots) {
    const auto check = [&kernel, &chassis, slot, runs, ticksOfSecond] {
      // Slots take turns within the second: a pass holds the processor for some milliseconds.
      kernel.delay(slot * ticksOfSecond / kSlots);
      for (;;) {
        kernel.delay(ticksOfSecond);
        const chassis::card* card = chassis.slot(slot).descriptor;
        if (runs(slot) && card->statusCheck != nullptr) card->statusCheck(static_cast<u8>(slot));
      }
    };
    kernel.spawn(fmt::format("tStatus{}", slot + 1), kStatusPriority, check, slot);
  }
}

}  // namespace headend
