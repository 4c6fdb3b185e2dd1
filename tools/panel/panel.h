// The front panel of a running headend on this process's terminal, as `qamctl panel` and `headend --panel`
// show it.
#pragma once

#include <chrono>
#include <string>

namespace tools {

// Runs until the operator quits, a signal requests the end, or the terminal is closed. `patience` is for a
// headend that no longer answers. Throws std::runtime_error: no usable terminal, no headend at the start, or
// no more replies from it. The terminal is always restored; the process's handlers of SIGINT, SIGTERM and
// SIGHUP are not.
void runPanel(const std::string& server, std::chrono::seconds patience);

}  // namespace tools
