// The faults of a headend: those that its options plan, and those that clients add and clear while it runs.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>

#include "headend/firmware/back_end.h"
#include "headend/hardware/card_fpga.h"
#include "headend/hardware/pid_router.h"
#include "headend/options.h"

namespace headend {

class FaultInjector {
 public:
  using Cards = std::array<std::unique_ptr<CardFpga>, MAX_BOARD_NUM>;
  struct Fault : Options::Fault {
    bool isPresent = false;
  };

  // Provides the operation kFault.
  FaultInjector(Kernel& kernel, Cards& cards, PidRouter& router, BackEnd& backEnd, const Say& say);

  // A fault of a place that exists. Without a slot it is added for each card.
  void add(const Options::Fault& fault);
  // Those that have not ended, in the order in which they were added.
  nlohmann::ordered_json report() const;
  static nlohmann::ordered_json names();  // of those that exist

 private:
  u32 carryOut(const protocol::Request& request, base::Bytes& reply);
  u32 refuse(const protocol::FaultPlace& place) const;
  u32 clear(const std::optional<protocol::FaultPlace>& place);
  void step(u64 number);
  // A fault of which there are several is present while one of them is.
  bool isPresent(const protocol::FaultPlace& place) const;
  void apply(const protocol::FaultPlace& place, bool isPresent);

  Kernel& kernel_;
  Cards& cards_;
  PidRouter& router_;
  const Say& say_;
  std::map<u64, Fault> faults_;
  u64 next_ = 0;
};

}  // namespace headend
