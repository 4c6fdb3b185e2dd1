// An input of a source card that is lost at a given time, permanently or periodically. The code that injects
// the fault wraps the real input with it.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "headend/hardware/ts_input.h"

namespace headend {

struct Loss {
  Nanos at = 0;
  // The input is lost for the first half of each period from `at` on, and present for the second half.
  // Without a period it stays lost.
  std::optional<Nanos> period;

  bool covers(Nanos time) const;
};

class InterruptibleInput final : public TsInput {
 public:
  // Throws std::runtime_error if the period is too short to be halved.
  InterruptibleInput(const Kernel& kernel, std::unique_ptr<TsInput> input, const Loss& loss);

  // Packets in lost intervals are discarded only when that time is reached: a looping file has an endless
  // number of packets. So kNever is valid only until the next query, as for an input from the network.
  Nanos nextArrival() const override;
  mpeg::PacketView take() override { return input_->take(); }
  const std::string& name() const override { return input_->name(); }

 private:
  const Kernel& kernel_;
  std::unique_ptr<TsInput> input_;
  Loss loss_;
};

}  // namespace headend
