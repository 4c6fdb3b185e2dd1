#include "headend/hardware/ts_input.h"

namespace headend {

bool InterruptibleInput::isLost(Nanos time) const {
  if (time < at_) return false;
  return !period_ || (time - at_) % *period_ < *period_ / 2;
}

Nanos InterruptibleInput::nextArrival() const {
  for (;;) {
    const Nanos next = input_->nextArrival();
    if (next == kNever || !isLost(next)) return next;
    if (next > kernel_.now()) return kNever;
    input_->take();
  }
}

}  // namespace headend
