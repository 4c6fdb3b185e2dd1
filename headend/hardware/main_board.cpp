#include "headend/hardware/main_board.h"

namespace headend {

void MainBoard::watch(int slot, int port, Multiplexer& output) {
  outputs_.at(static_cast<std::size_t>(slot) * 2 + static_cast<std::size_t>(port)) = &output;
}

u16 MainBoard::read(u32 /*offset*/, Nanos now) {
  unsigned overflows = 0;
  for (std::size_t bit = 0; bit < outputs_.size(); ++bit) {
    if (outputs_[bit] == nullptr) continue;
    outputs_[bit]->advance(now);
    const std::optional<Nanos> last = outputs_[bit]->lastDrop();
    if (last && now - *last < kOverflowHold) overflows |= 1U << bit;
  }
  return static_cast<u16>(overflows);
}

}  // namespace headend
