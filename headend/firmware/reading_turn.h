// Cards share the buffers of what they read: nobody else may read between a card's answer and its copy. A
// task may take the turn again while it has it, as the cards themselves do.
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
