// Faults planted in the running machine, as a fault in the module would show itself. Each turns one check of
// the judge red; a campaign with a plant must find it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "headend/headend.h"

namespace campaign {

struct Plant {
  std::string name;
  std::string invariant;  // that must turn red
  std::function<void(headend::Headend& headend, int slot)> set;
  std::function<void(int slot)> beforeStart = [](int /*slot*/) {};  // that follows the history
};
const std::vector<Plant>& plants();

}  // namespace campaign
