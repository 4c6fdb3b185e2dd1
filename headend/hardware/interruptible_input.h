// An input of a source card whose cable comes loose at a given time, for good or again and again. Put around
// the real input by whoever injects the fault.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "headend/hardware/ts_input.h"

namespace headend {

struct Loss {
  Nanos at = 0;
  // The input is lost for the first half of each period from `at` on and there for the second; without one it
  // stays lost.
  std::optional<Nanos> period;

  bool covers(Nanos time) const;
};

class InterruptibleInput final : public TsInput {
 public:
  // Throws std::runtime_error when the period is too short to be halved.
  InterruptibleInput(const Kernel& kernel, std::unique_ptr<TsInput> input, const Loss& loss);

  // Packets of a lost time are discarded here as that time comes, not before: a looping file has no end of
  // them. So kNever means until asked again, as with an input from the network.
  Nanos nextArrival() const override;
  mpeg::PacketView take() override { return input_->take(); }
  const std::string& name() const override { return input_->name(); }

 private:
  const Kernel& kernel_;
  std::unique_ptr<TsInput> input_;
  Loss loss_;
};

}  // namespace headend
