// A run of a headend: the faults and the end that the options plan, the clocks' work, and the exit code.
#pragma once

#include <atomic>

#include "headend/headend.h"

namespace headend {

// Runs until the end of the duration, or until `interrupted` becomes true. Prints what has failed. Returns an
// ExitCode.
int run(Headend& headend, const std::atomic<bool>& interrupted);

}  // namespace headend
