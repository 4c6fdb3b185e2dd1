// Faults of a card that a run can inject by name: which part of the board fails, and when.
#pragma once

#include <string>
#include <vector>

#include "headend/hardware/card_board.h"

namespace headend {

struct FaultKind {
  std::string name;  // "clock-no-ack"
  std::string text;  // description for a list
  std::function<void(CardBoard& board, Nanos now)> inject;
};

// All of them, in the order of a list.
const std::vector<FaultKind>& faultKinds();
const FaultKind* findFault(const std::string& name);  // null: unknown name

}  // namespace headend
