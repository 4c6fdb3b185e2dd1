// An input of a source card: a transport stream whose packets arrive one by one in virtual time. The router
// reads the packets; the inputs do not depend on their destination.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "base/interface.h"
#include "headend/kernel/kernel.h"
#include "mpeg/packet.h"

namespace headend {

class TsInput : public base::Interface {
 public:
  // When the next packet arrives; kNever if none is known. Never earlier than the previous packet.
  virtual Nanos nextArrival() const = 0;
  // Removes that packet, which must be known; valid until the next call.
  virtual mpeg::PacketView take() = 0;

  // The name for users: the file's path or the address.
  virtual const std::string& name() const = 0;
};

// An input that is lost at a given time, permanently or periodically. The code that injects the fault wraps
// the real input with it.
class InterruptibleInput final : public TsInput {
 public:
  // The input is lost for the first half of each period from `at` on, and present for the second half; a
  // period is 2 ns or more. Without a period it stays lost.
  InterruptibleInput(const Kernel& kernel, std::unique_ptr<TsInput> input, Nanos at,
                     std::optional<Nanos> period)
      : kernel_(kernel), input_(std::move(input)), at_(at), period_(period) {}

  // Packets in lost intervals are discarded only when that time is reached: a looping file has an endless
  // number of packets. So kNever is valid only until the next query, as for an input from the network.
  Nanos nextArrival() const override {
    for (;;) {
      const Nanos next = input_->nextArrival();
      if (next == kNever || !isLost(next)) return next;
      if (next > kernel_.now()) return kNever;
      input_->take();
    }
  }
  mpeg::PacketView take() override { return input_->take(); }
  const std::string& name() const override { return input_->name(); }

 private:
  bool isLost(Nanos time) const {
    return time >= at_ && (!period_ || (time - at_) % *period_ < *period_ / 2);
  }

  const Kernel& kernel_;
  std::unique_ptr<TsInput> input_;
  Nanos at_;
  std::optional<Nanos> period_;
};

}  // namespace headend
