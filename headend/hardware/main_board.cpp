#include "headend/hardware/main_board.h"

namespace headend {

void MainBoard::watch(int slot, int port, Multiplexer& output) {
  outputs_.at(outputNumber(slot, port)) = &output;
}

bool MainBoard::overflows(int slot, int port, Nanos now) {
  Multiplexer* output = outputs_.at(outputNumber(slot, port));
  if (output == nullptr) return false;
  output->advance(now);
  const std::optional<Nanos> last = output->lastDrop();
  return last && now - *last < kOverflowHold;
}

u16 MainBoard::read(u32 /*offset*/, Nanos now) {
  unsigned bits = 0;
  for (int slot = 0; slot < MAX_BOARD_NUM; ++slot) {
    for (int port = 0; port < MAX_QAM_OUT_NUM; ++port) {
      if (overflows(slot, port, now)) bits |= 1U << outputNumber(slot, port);
    }
  }
  return static_cast<u16>(bits);
}

}  // namespace headend
