// Cards share the buffers for read values: no other task may read between a card's answer and the copy. A
// task may lock again while it has the lock, as the cards themselves do.
#pragma once

#include "card/qamVar.h"
#include "platform/kernel.h"

namespace headend {

class ReadingTurn {
 public:
  ReadingTurn() { os::semTake(semQamVar, os::WAIT_FOREVER); }
  ReadingTurn(const ReadingTurn&) = delete;
  ReadingTurn& operator=(const ReadingTurn&) = delete;
  ~ReadingTurn() { os::semGive(semQamVar); }
};

}  // namespace headend
