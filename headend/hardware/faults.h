// Faults of a card that a run can inject by name: which part of the card fails.
#pragma once

#include <string>
#include <vector>

#include "headend/hardware/card_fpga.h"

namespace headend {

struct FaultKind {
  std::string name;  // "clock-no-ack"
  std::string text;  // description for a list
  std::function<void(CardFpga& card, bool present, Nanos now)> set;
  bool ends = true;  // else it happens at once and has no end
};

inline constexpr auto kInputLost = "input-lost";  // of a source card's input
inline constexpr auto kInputLostText = "an input of a source card is lost";

// All those of a card, in the order of a list.
const std::vector<FaultKind>& faultKinds();
const FaultKind* findFault(const std::string& name);  // null: unknown name

}  // namespace headend
