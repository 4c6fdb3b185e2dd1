#include "headend/hardware/interruptible_input.h"

#include <fmt/format.h>

#include <stdexcept>

namespace headend {

bool Loss::covers(Nanos time) const {
  if (time < at) return false;
  return !period || (time - at) % *period < *period / 2;
}

InterruptibleInput::InterruptibleInput(const Kernel& kernel, std::unique_ptr<TsInput> input, const Loss& loss)
    : kernel_(kernel), input_(std::move(input)), loss_(loss) {
  if (loss.period && *loss.period < 2) {
    throw std::runtime_error(
        fmt::format("{} cannot be lost every {} ns: name a longer period", input_->name(), *loss.period));
  }
}

Nanos InterruptibleInput::nextArrival() const {
  for (;;) {
    const Nanos next = input_->nextArrival();
    if (next == kNever || !loss_.covers(next)) return next;
    if (next > kernel_.now()) return kNever;
    input_->take();
  }
}

}  // namespace headend
